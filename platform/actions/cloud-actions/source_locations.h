// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef PLATFORM_ACTIONS_CLOUD_ACTIONS_SOURCE_LOCATIONS_H_
#define PLATFORM_ACTIONS_CLOUD_ACTIONS_SOURCE_LOCATIONS_H_

#include "base/logging.h"

// Where the errors and some log lines of the cloud action manager say that they
// come from. Tools in the field key on these numbers, so they are fixed names,
// not positions: they stay as they are whatever becomes of the source.
namespace halvex::actions::source_locations {

inline constexpr char kManagerFile[] =
    "platform/actions/cloud-actions/cloud_action_manager";

inline constexpr base::Location kConfigNotLoaded{"CloudActionManager",
                                                 kManagerFile, 52};
inline constexpr base::Location kNotAUrl{"RedirectRequest", kManagerFile, 81};
inline constexpr base::Location kNotWhitelisted{"RedirectRequest", kManagerFile,
                                                103};
inline constexpr base::Location kNotProvisioned{"RedirectRequest", kManagerFile,
                                                115};
inline constexpr base::Location kBodyNotJson{"RedirectRequest", kManagerFile,
                                             129};
inline constexpr base::Location kMethodNotSupported{"RedirectRequest",
                                                    kManagerFile, 162};
inline constexpr base::Location kAccessTokenInvalidated{"OnRequestSuccess",
                                                        kManagerFile, 354};
inline constexpr base::Location kInvalidJsonResponse{"OnRequestSuccess",
                                                     kManagerFile, 363};

}  // namespace halvex::actions::source_locations

#endif  // PLATFORM_ACTIONS_CLOUD_ACTIONS_SOURCE_LOCATIONS_H_
