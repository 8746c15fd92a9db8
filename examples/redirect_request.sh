#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
#
# Sends one request through the cloud action daemon, from a shell with busctl.
#
#   redirect_request.sh ENDPOINT METHOD [BODY]
#
# Prints the cloud's status code and its answer, or the text of the D-Bus error.

if [ $# -ne 2 ] && [ $# -ne 3 ]; then
  echo "Usage: redirect_request.sh ENDPOINT METHOD [BODY]" >&2
  exit 64
fi

# The daemon gives a request 30 seconds. Whoever waits no longer than that, or
# only for the 25 seconds of the default, never learns how it ended.
reply=$(busctl --timeout=45 --json=short -- call \
  org.vantrel.actions.CloudActions \
  /org/vantrel/actions/CloudActions/Manager \
  org.vantrel.actions.CloudActions.Manager \
  RedirectRequest sss "$1" "$2" "${3-}") || exit 1

# The reply is {"type":"is","data":[STATUS,"BODY"]}, with a backslash before
# each quote and each backslash of BODY. Nothing else in it is escaped: it is
# compact JSON, which holds no control characters.
values=${reply#*'"data":['}
status_code=${values%%,*}
body=${values#*,\"}
body=${body%'"]}'}
printf '%s ' "$status_code"
printf '%s\n' "$body" | sed 's/\\\(.\)/\1/g'
