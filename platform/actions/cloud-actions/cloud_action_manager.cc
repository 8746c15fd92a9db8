// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "platform/actions/cloud-actions/cloud_action_manager.h"

#include <utility>

#include "base/files.h"
#include "base/json_reader.h"
#include "base/json_writer.h"
#include "base/logging.h"
#include "base/strings.h"
#include "kestrix/http/http_constants.h"
#include "kestrix/key_value_store.h"
#include "kestrix/service_status.h"
#include "kestrix/variant_dictionary.h"
#include "platform/actions/cloud-actions/source_locations.h"

namespace halvex::actions {
namespace {

namespace locations = source_locations;

using kestrix::VariantDictionary;

constexpr base::TimeDelta kRequestTimeout = std::chrono::seconds(30);

constexpr char kSetCredentialCommand[] =
    "_cloudActionConfiguration._setCredential";
constexpr char kRemoveCredentialCommand[] =
    "_cloudActionConfiguration._removeCredential";
constexpr char kCommandStateQueued[] = "queued";

constexpr char kAuthorizationCodeKey[] = "_authorizationCode";
constexpr char kAllowedEndpointsKey[] = "_allowedEndpoints";

constexpr char kCredentialStateKey[] = "_cloudActionConfiguration._credential";
constexpr char kProvisionedKey[] = "_provisioned";

// An endpoint cannot hold the separator: there is no escape for it.
constexpr char kEndpointSeparator[] = ",";

void Complete(CommandProxy* command) { command->Complete({}); }

void Abort(CommandProxy* command) { command->Abort("", ""); }

// Ends a refused request with an error of this daemon.
void Refuse(const RedirectRequestCallback& callback,
            const base::Location& location, const std::string& reason) {
  const std::unique_ptr<kestrix::Error> error = kestrix::Error::Create(
      location, errors::kDomain, errors::kInvalidArguments, reason);
  callback.Run({}, error.get());
}

}  // namespace

const char kConfigFile[] = "/etc/ap/cloud_action.conf";
const char kAllowedEndpointsFile[] = "/var/lib/cloud_action/allowed_endpoints";
const char kRefreshTokenFile[] = "/var/lib/cloud_action/refresh_token";

CloudActionManager::CloudActionManager(ObjectManagerProxy* object_manager)
    : object_manager_(object_manager),
      transport_(kestrix::http::Transport::CreateDefault()),
      // Intended: only existence counts. What an unreadable file holds may be
      // read again after the next start.
      provisioned_(base::PathExists(base::FilePath(kRefreshTokenFile))) {
  const auto self = weak_ptr_factory_.GetWeakPtr();
  object_manager_->SetManagerAddedCallback(
      base::Bind(&CloudActionManager::OnManagerAdded, self));
  object_manager_->SetCommandAddedCallback(
      base::Bind(&CloudActionManager::OnCommandAdded, self));
  transport_->SetDefaultTimeout(kRequestTimeout);
  if (!LoadConfig()) {
    // Intended: a device without a configuration still starts and answers.
    base::ReportNotReached(
        locations::kConfigNotLoaded,
        "the configuration is incomplete, going on with what was read");
  }
  LoadAllowedEndpoints();
  oauth2_manager_ = CreateOAuth2Manager();
  command_handlers_[kSetCredentialCommand] = base::Bind(
      &CloudActionManager::HandleSetCredential, base::Unretained(this));
  command_handlers_[kRemoveCredentialCommand] = base::Bind(
      &CloudActionManager::HandleRemoveCredential, base::Unretained(this));
}

CloudActionManager::~CloudActionManager() = default;

bool CloudActionManager::HoldsCredential() const {
  return oauth2_manager_->HasRefreshToken();
}

bool CloudActionManager::LoadConfig() {
  kestrix::KeyValueStore store;
  if (!store.Load(base::FilePath(kConfigFile))) {
    LOG(ERROR) << "Failed to load config file " << kConfigFile;
    return false;
  }
  if (!store.GetString("SMARTHOME_CLIENT_ID", &client_id_) ||
      !store.GetString("SMARTHOME_CLIENT_SECRET", &client_secret_) ||
      !store.GetString("SMARTHOME_SCOPE", &scope_)) {
    LOG(ERROR) << "Missing fields in the config file - file corrupted?";
    return false;
  }
  return true;
}

void CloudActionManager::LoadAllowedEndpoints() {
  const base::FilePath path(kAllowedEndpointsFile);
  base::DeleteStaleTemporaries(path);
  std::string contents;
  if (!base::ReadFileToString(path, &contents)) {
    LOG(ERROR) << "Failed to read file: " << kAllowedEndpointsFile;
    return;
  }
  // More lenient than what is written, for files that were edited by hand.
  allowed_endpoints_ = ParseEndpoints(base::SplitString(
      contents, kEndpointSeparator, base::WhitespaceHandling::kTrim,
      base::SplitResult::kNonEmpty));
}

AllowedEndpoints CloudActionManager::ParseEndpoints(
    const std::vector<std::string>& endpoints) {
  AllowedEndpoints parsed;
  for (const std::string& endpoint : endpoints) {
    auto url = std::make_unique<HTTPURL>();
    if (!url->Parse(endpoint)) {
      LOG(ERROR) << "Ignore invalid endpoint URL: " << endpoint;
      continue;
    }
    parsed.push_back(std::move(url));
  }
  return parsed;
}

std::unique_ptr<ap::OAuth2Manager> CloudActionManager::CreateOAuth2Manager()
    const {
  return std::make_unique<ap::OAuth2Manager>(client_id_, client_secret_, scope_,
                                             base::FilePath(kRefreshTokenFile),
                                             transport_);
}

void CloudActionManager::RedirectRequest(
    const std::string& endpoint, const std::string& method,
    const std::string& body, const RedirectRequestCallback& callback) {
  HTTPURL url;
  if (!url.Parse(endpoint)) {
    Refuse(callback, locations::kNotAUrl,
           "Endpoint " + endpoint + " is not a valid URL");
    return;
  }
  if (!IsEndpointAllowed(allowed_endpoints_, url)) {
    Refuse(callback, locations::kNotWhitelisted,
           "Endpoint " + endpoint + " not whitelisted");
    return;
  }
  if (!provisioned_) {
    Refuse(callback, locations::kNotProvisioned,
           "Authorization code not provisioned");
    return;
  }

  const auto self = weak_ptr_factory_.GetWeakPtr();
  const auto on_success =
      base::Bind(&CloudActionManager::OnRequestSuccess, self, callback);
  const auto on_error =
      base::Bind(&CloudActionManager::OnRequestError, self, callback);
  if (base::CompareCaseInsensitiveASCII(
          method, kestrix::http::request_type::kPost) == 0) {
    std::unique_ptr<base::Value> json = base::JSONReader::Read(body);
    if (!json) {
      Refuse(callback, locations::kBodyNotJson,
             "Request body not in JSON format");
      return;
    }
    kestrix::http::PostJson(endpoint, std::move(json), CreateRequestHeaders(),
                            transport_, on_success, on_error);
  } else if (base::CompareCaseInsensitiveASCII(
                 method, kestrix::http::request_type::kGet) == 0) {
    kestrix::http::Get(endpoint, CreateRequestHeaders(), transport_, on_success,
                       on_error);
  } else {
    Refuse(callback, locations::kMethodNotSupported,
           "Method " + method + " not supported");
  }
}

kestrix::http::HeaderList CloudActionManager::CreateRequestHeaders() {
  return {
      {kestrix::http::request_header::kAuthorization,
       "Bearer " + oauth2_manager_->GetAccessToken()},
      {kestrix::http::request_header::kContentType,
       kestrix::mime::application::kJson},
  };
}

void CloudActionManager::OnRequestSuccess(
    const RedirectRequestCallback& callback, int /*request_id*/,
    std::unique_ptr<kestrix::http::Response> response) {
  if (!oauth2_manager_->ValidateResponse(*response)) {
    LOG_AT(INFO, locations::kAccessTokenInvalidated)
        << "Access token invalidated";
  }
  RedirectResult result;
  const std::unique_ptr<base::DictionaryValue> json =
      kestrix::http::ParseJsonResponse(response.get(), &result.status_code,
                                       nullptr);
  if (json && base::JSONWriter::Write(*json, &result.response_body)) {
    callback.Run(result, nullptr);
    return;
  }
  const std::unique_ptr<kestrix::Error> error =
      kestrix::Error::Create(locations::kInvalidJsonResponse, errors::kDomain,
                             errors::kRemoteError, "Invalid JSON response");
  callback.Run({}, error.get());
}

void CloudActionManager::OnRequestError(const RedirectRequestCallback& callback,
                                        int /*request_id*/,
                                        const kestrix::Error* error) {
  callback.Run({}, error);
}

void CloudActionManager::OnManagerAdded(ManagerProxy* /*manager*/) {
  PublishCredentialState();
}

void CloudActionManager::OnCommandAdded(CommandProxy* command) {
  // A command is looked at once, when it appears: one that is not queued has
  // been taken by somebody already.
  if (command->state() != kCommandStateQueued) return;
  const auto handler = command_handlers_.find(command->name());
  if (handler == command_handlers_.end()) return;
  handler->second.Run(command);
}

void CloudActionManager::HandleSetCredential(CommandProxy* command) {
  LOG(INFO) << "HandleSetCredential";
  const VariantDictionary& parameters = command->parameters();
  const auto code = kestrix::GetVariantValueOrDefault<std::string>(
      parameters, kAuthorizationCodeKey);
  const auto endpoints =
      kestrix::GetVariantValueOrDefault<std::vector<std::string>>(
          parameters, kAllowedEndpointsKey);
  for (const std::string& endpoint : endpoints) {
    if (HTTPURL().Parse(endpoint)) continue;
    LOG(ERROR) << "Allowed endpoints contains an invalid URL: " << endpoint;
    Abort(command);
    return;
  }
  if (code.empty()) {
    LOG(ERROR) << "Authorization code not provided";
    Abort(command);
    return;
  }
  oauth2_manager_->FetchRefreshToken(
      code, base::Bind(&CloudActionManager::OnRefreshTokenObtained,
                       weak_ptr_factory_.GetWeakPtr(), command->GetWeakPtr(),
                       endpoints));
}

void CloudActionManager::HandleRemoveCredential(CommandProxy* command) {
  LOG(INFO) << "HandleRemoveCredential";
  if (!base::DeleteFile(base::FilePath(kRefreshTokenFile),
                        /*recursive=*/false)) {
    LOG(ERROR) << "Failed to remove refresh token file";
    // Intended: the command is completed below all the same. The agent learns
    // of the trouble, and the credential is out of use until the next start.
    Abort(command);
  }
  oauth2_manager_.reset();
  oauth2_manager_ = CreateOAuth2Manager();
  allowed_endpoints_.clear();
  base::DeleteFile(base::FilePath(kAllowedEndpointsFile),
                   /*recursive=*/false);
  provisioned_ = false;
  kestrix::ServiceStatus::Changed();
  PublishCredentialState();
  Complete(command);
}

void CloudActionManager::OnRefreshTokenObtained(
    const base::WeakPtr<CommandProxy>& command,
    const std::vector<std::string>& endpoints, bool success) {
  if (!success) {
    LOG(ERROR) << "Failed to obtain refresh token from the provided"
               << " authorization code";
    if (command) Abort(command.get());
    return;
  }
  allowed_endpoints_ = ParseEndpoints(endpoints);
  SaveAllowedEndpoints(endpoints);
  provisioned_ = true;
  PublishCredentialState();
  if (command) Complete(command.get());
}

void CloudActionManager::SaveAllowedEndpoints(
    const std::vector<std::string>& endpoints) {
  const std::string contents = base::JoinString(endpoints, kEndpointSeparator);
  const int written = base::WriteFile(base::FilePath(kAllowedEndpointsFile),
                                      contents.data(), contents.size());
  if (written < 0 || static_cast<size_t>(written) != contents.size()) {
    // Intended: the command succeeds. The list serves until the next start.
    PLOG(ERROR) << "Failed to write allowed endpoints to file";
  }
}

void CloudActionManager::PublishCredentialState() {
  ManagerProxy* manager = object_manager_->GetManagerProxy();
  if (!manager) {
    LOG(ERROR) << "Dosset not up yet";
    return;
  }
  VariantDictionary credential;
  credential[kProvisionedKey] = kestrix::Any(provisioned_);
  VariantDictionary state;
  state[kCredentialStateKey] = kestrix::Any(std::move(credential));
  if (!manager->UpdateState(state)) LOG(ERROR) << "Failed to update state";
}

}  // namespace halvex::actions
