// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef PLATFORM_AP_COMMON_OAUTH2_MANAGER_H_
#define PLATFORM_AP_COMMON_OAUTH2_MANAGER_H_

#include <memory>
#include <string>

#include "base/callback.h"
#include "base/files.h"
#include "base/time.h"
#include "base/values.h"
#include "base/weak_ptr.h"
#include "kestrix/error.h"
#include "kestrix/http/transport.h"

namespace halvex::ap {

// The identity provider's OAuth 2.0 token endpoint (RFC 6749, section 3.2).
extern const char kTokenEndpointUrl[];

// Holds the device owner's OAuth 2.0 credential: exchanges an authorization
// code for a refresh token, keeps that in a file, and gets access tokens for
// it. An access token is kept until a server answers 401 to it; no expiry time
// is read.
//
// States, told by the members alone: no refresh token (unprovisioned, or, with
// a pending callback, exchanging a code); a refresh token without an access
// token; both.
class OAuth2Manager {
 public:
  // Reads the refresh token from `refresh_token_file`, byte for byte, and if
  // there is one starts to get an access token for it. A file that cannot be
  // read counts as no token.
  OAuth2Manager(const std::string& client_id, const std::string& client_secret,
                const std::string& scope,
                const base::FilePath& refresh_token_file,
                std::shared_ptr<kestrix::http::Transport> transport);
  virtual ~OAuth2Manager();
  OAuth2Manager(const OAuth2Manager&) = delete;
  OAuth2Manager& operator=(const OAuth2Manager&) = delete;

  virtual bool HasRefreshToken() const;

  // Exchanges `authorization_code` for a refresh token (RFC 6749, section
  // 4.1.3). `callback` runs exactly once with whether that succeeded, later
  // from the event loop; it runs with false before this returns if an exchange
  // is under way already. It is dropped unrun if the manager is destroyed
  // first. Success is reported before the token is on disk.
  //
  // The present tokens are dropped at once, but the file keeps the old refresh
  // token until the exchange has succeeded.
  virtual void FetchRefreshToken(const std::string& authorization_code,
                                 const base::Callback<void(bool)>& callback);

  // The access token, or "" if there is none now. In that case a refresh is
  // started, if there is a refresh token and none was started in the last 30
  // seconds.
  virtual std::string GetAccessToken();

  // False for a response with status 401: the access token is then dropped, and
  // a refresh is started under the same rule.
  virtual bool ValidateResponse(const kestrix::http::Response& response);

 private:
  void SendRefreshTokenRequest(const std::string& authorization_code);
  void RefreshAccessToken();

  // Completions, in the order in which they happen.
  void OnRefreshTokenFetched(int request_id,
                             std::unique_ptr<kestrix::http::Response> response);
  void OnRefreshTokenError(int request_id, const kestrix::Error* error);
  void OnAccessTokenFetched(int request_id,
                            std::unique_ptr<kestrix::http::Response> response);
  void OnAccessTokenError(int request_id, const kestrix::Error* error);

  // The JSON object in `response`; null if there is none, or if its status says
  // that it is an error, which is then logged.
  std::unique_ptr<base::DictionaryValue> ParseOAuth2Response(
      const kestrix::http::Response* response);
  void RunPendingCallback(bool success);

  std::string client_id_;
  std::string client_secret_;
  std::string scope_;
  // Empty: there is no credential.
  std::string refresh_token_;
  // Empty: none is cached.
  std::string access_token_;
  // Set exactly while the exchange of an authorization code is outstanding.
  base::Callback<void(bool)> pending_callback_;
  // When the last refresh was started.
  base::TimeTicks last_refresh_time_;
  base::FilePath refresh_token_file_;
  std::shared_ptr<kestrix::http::Transport> transport_;
  // Last: destroyed first, so late completions find nothing.
  base::WeakPtrFactory<OAuth2Manager> weak_ptr_factory_{this};
};

}  // namespace halvex::ap

#endif  // PLATFORM_AP_COMMON_OAUTH2_MANAGER_H_
