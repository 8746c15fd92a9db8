// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef PLATFORM_ACTIONS_CLOUD_ACTIONS_CLOUD_ACTION_MANAGER_H_
#define PLATFORM_ACTIONS_CLOUD_ACTIONS_CLOUD_ACTION_MANAGER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/callback.h"
#include "base/weak_ptr.h"
#include "dosset/dbus-proxies.h"
#include "kestrix/error.h"
#include "kestrix/http/http_utils.h"
#include "kestrix/http/transport.h"
#include "platform/actions/cloud-actions/http_url.h"
#include "platform/ap/common/oauth2_manager.h"

namespace halvex::actions {

using org::vantrel::Dosset::CommandProxy;
using org::vantrel::Dosset::ManagerProxy;
using org::vantrel::Dosset::ObjectManagerProxy;

// The domain of the errors that the daemon itself raises, and their codes.
namespace errors {
inline constexpr char kDomain[] = "actions";
inline constexpr char kInvalidArguments[] = "invalid_arguments";
inline constexpr char kRemoteError[] = "remote_error";
inline constexpr char kParsingError[] = "parsing_error";    // Reserved.
inline constexpr char kInternalError[] = "internal_error";  // Reserved.
}  // namespace errors

struct RedirectResult {
  int32_t status_code = 0;
  std::string response_body;
};

// Completes a redirected request, once, from the event loop. The error is null
// on success and lives only during the call; with an error the result is
// (0, "").
using RedirectRequestCallback =
    base::Callback<void(const RedirectResult&, const kestrix::Error*)>;

// Files, read at start and written when their content changes.
extern const char kConfigFile[];
extern const char kAllowedEndpointsFile[];
extern const char kRefreshTokenFile[];

// The heart of the daemon: forwards requests to the endpoints that the device's
// owner allowed, and carries out the agent's commands that give or take the
// owner's credential.
class CloudActionManager {
 public:
  // Reads the configuration and the persisted state; whatever is missing is
  // logged and survived. From then on acts on what `object_manager` announces.
  // `object_manager` is borrowed and must outlive the manager.
  explicit CloudActionManager(ObjectManagerProxy* object_manager);
  ~CloudActionManager();
  CloudActionManager(const CloudActionManager&) = delete;
  CloudActionManager& operator=(const CloudActionManager&) = delete;

  // Whether there is a refresh token now. Not what the agent is told: see
  // `provisioned_`.
  bool HoldsCredential() const;

  // Forwards a request with the owner's access token. Returns at once.
  // `callback` runs exactly once: before this returns if the request is
  // refused, later otherwise. It is dropped unrun if the manager is destroyed
  // first. The request goes out also while there is no access token: a 401
  // tells the caller to try again.
  void RedirectRequest(const std::string& endpoint, const std::string& method,
                       const std::string& body,
                       const RedirectRequestCallback& callback);

 private:
  using CommandHandler = base::Callback<void(CommandProxy*)>;

  // True if the file was read and holds all three keys.
  bool LoadConfig();
  void LoadAllowedEndpoints();
  // Drops, with a log line each, what does not parse.
  AllowedEndpoints ParseEndpoints(const std::vector<std::string>& endpoints);
  std::unique_ptr<ap::OAuth2Manager> CreateOAuth2Manager() const;

  void OnRequestSuccess(const RedirectRequestCallback& callback, int request_id,
                        std::unique_ptr<kestrix::http::Response> response);
  void OnRequestError(const RedirectRequestCallback& callback, int request_id,
                      const kestrix::Error* error);
  // The access token is fetched anew for each request.
  kestrix::http::HeaderList CreateRequestHeaders();

  void OnManagerAdded(ManagerProxy* manager);
  void OnCommandAdded(CommandProxy* command);
  void HandleSetCredential(CommandProxy* command);
  void HandleRemoveCredential(CommandProxy* command);
  // The agent may have withdrawn `command` while the exchange ran; the outcome
  // then counts all the same, and there is nobody left to tell.
  void OnRefreshTokenObtained(const base::WeakPtr<CommandProxy>& command,
                              const std::vector<std::string>& endpoints,
                              bool success);
  void SaveAllowedEndpoints(const std::vector<std::string>& endpoints);
  void PublishCredentialState();

  ObjectManagerProxy* object_manager_;  // Not owned; outlives this.
  // Null only during construction.
  std::unique_ptr<ap::OAuth2Manager> oauth2_manager_;
  std::shared_ptr<kestrix::http::Transport> transport_;
  std::string client_id_;
  std::string client_secret_;
  std::string scope_;
  // Whether a credential is held. It stays true when the token manager drops a
  // credential that the identity provider no longer takes.
  bool provisioned_;
  AllowedEndpoints allowed_endpoints_;
  std::map<std::string, CommandHandler> command_handlers_;
  // Last: destroyed first, so late completions find nothing.
  base::WeakPtrFactory<CloudActionManager> weak_ptr_factory_{this};
};

}  // namespace halvex::actions

#endif  // PLATFORM_ACTIONS_CLOUD_ACTIONS_CLOUD_ACTION_MANAGER_H_
