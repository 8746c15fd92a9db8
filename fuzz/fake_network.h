// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef FUZZ_FAKE_NETWORK_H_
#define FUZZ_FAKE_NETWORK_H_

#include <string>
#include <vector>

// Programs that are linked with this reach no network: getaddrinfo() and
// connect() are defined here, and the HTTP library, as every shared library,
// calls these. Every name has one address, and behind every address there is an
// HTTP server that answers one request, or nobody.
namespace fuzz {

struct Contacts {
  // What was looked up, as "name:port".
  std::vector<std::string> names;
  // What was connected to, as "address:port".
  std::vector<std::string> addresses;
  // What the servers were sent.
  std::string sent;
};

// What every name resolves to.
inline constexpr char kAddress[] = "192.0.2.1";

// Forgets all contacts. From now on connections get `answer`; if that is empty,
// they are refused.
void StartNetwork(const std::string& answer);

// The contacts since then; the connections are closed.
Contacts TakeContacts();

}  // namespace fuzz

#endif  // FUZZ_FAKE_NETWORK_H_
