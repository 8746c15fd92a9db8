// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "fuzz/fake_network.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <utility>

#include "base/logging.h"

namespace {

// The HTTP library looks names up in threads of its own.
std::mutex g_mutex;
fuzz::Contacts g_contacts;
std::string g_answer;
std::vector<int> g_servers;

std::string Describe(const sockaddr* address) {
  char text[INET6_ADDRSTRLEN] = {};
  in_port_t port = 0;
  if (address->sa_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
    inet_ntop(AF_INET, &v4->sin_addr, text, sizeof(text));
    port = v4->sin_port;
  } else if (address->sa_family == AF_INET6) {
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
    inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof(text));
    port = v6->sin6_port;
  }
  return std::string(text) + ":" + std::to_string(ntohs(port));
}

// An answer and the address in it are one piece of memory.
struct Answer {
  addrinfo info;
  sockaddr_in address;
};

}  // namespace

extern "C" {

int getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                addrinfo** result) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  g_contacts.names.push_back(std::string(name ? name : "") + ":" +
                             (service ? service : ""));
  auto* answer = static_cast<Answer*>(calloc(1, sizeof(Answer)));
  CHECK(answer != nullptr) << "No memory";
  answer->address.sin_family = AF_INET;
  answer->address.sin_port =
      htons(static_cast<in_port_t>(service ? atoi(service) : 0));
  inet_pton(AF_INET, fuzz::kAddress, &answer->address.sin_addr);
  answer->info.ai_family = AF_INET;
  answer->info.ai_socktype = hints ? hints->ai_socktype : SOCK_STREAM;
  answer->info.ai_protocol = IPPROTO_TCP;
  answer->info.ai_addrlen = sizeof(answer->address);
  answer->info.ai_addr = reinterpret_cast<sockaddr*>(&answer->address);
  *result = &answer->info;
  return 0;
}

void freeaddrinfo(addrinfo* info) { free(info); }

int connect(int fd, const sockaddr* address, socklen_t /*length*/) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  g_contacts.addresses.push_back(Describe(address));
  if (g_answer.empty()) {
    errno = ECONNREFUSED;
    return -1;
  }
  // The caller's descriptor becomes one end of a connection to us.
  int ends[2];
  CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0,
                   ends) == 0 &&
        dup2(ends[0], fd) == fd &&
        write(ends[1], g_answer.data(), g_answer.size()) ==
            static_cast<ssize_t>(g_answer.size()))
      << "Cannot connect: " << strerror(errno);
  close(ends[0]);
  g_servers.push_back(ends[1]);
  return 0;
}

}  // extern "C"

namespace fuzz {

void StartNetwork(const std::string& answer) {
  TakeContacts();
  const std::lock_guard<std::mutex> lock(g_mutex);
  g_answer = answer;
}

Contacts TakeContacts() {
  const std::lock_guard<std::mutex> lock(g_mutex);
  for (const int server : g_servers) {
    char buffer[65536];
    ssize_t count = 0;
    while ((count = read(server, buffer, sizeof(buffer))) > 0) {
      g_contacts.sent.append(buffer, static_cast<size_t>(count));
    }
    close(server);
  }
  g_servers.clear();
  return std::exchange(g_contacts, {});
}

}  // namespace fuzz
