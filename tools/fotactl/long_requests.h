// Requests during which the daemon works on a package: what it is at, and how things stand for somebody who
// leaves.
#pragma once

#include <functional>
#include <string>

#include "arguments.h"

// How things stand when somebody leaves; {} is the agent.
#define GO_ON_OR_GET_OUT \
    "'fotactl install {}' goes on, 'fotactl abort {} --status 401 --reason cancelled' gets out."
inline constexpr char STATE_CHECKING[] =
    "fotad may go on checking the package; 'fotactl status' shows when it is validated. "
    "Then " GO_ON_OR_GET_OUT " Until then 'fotactl unlock {}' gives the session back.";
inline constexpr char STATE_PREPARING[] =
    "fotad goes on joining the pieces, and the session of {} is open: 'fotactl sideload start {} "
    "/opt/qast/data/fota/upgrade.zip' goes on, 'fotactl unlock {} --force' gets out and throws the package "
    "away.";
inline constexpr char STATE_SIDE_LOADING[] =
    "The side-load goes on without you, and fotad refuses other requests until it has ended; 'fotactl watch' "
    "shows how it goes.";

// `text` with the agent's name, as a person can copy it to a shell.
[[nodiscard]] std::string agent_filled_in(std::string text, const std::string& agent);
[[nodiscard]] std::string as_argument(const std::string& agent);

// What the daemon is at while it checks a package, and while it joins the pieces of a bundle, by the sizes of
// its work files; empty when none is there, or this user may not look. Any thread.
[[nodiscard]] std::string check_progress();
[[nodiscard]] std::string prepare_progress();
[[nodiscard]] std::string nothing_to_tell();

// Makes a request alone, as `wait_for` does, with the seconds and `progress` beside `doing`.
[[nodiscard]] int long_request(const options& options, const char* doing, const char* state,
                               std::string (*progress)(), const std::function<int()>& request);
