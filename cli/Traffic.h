// SPDX-License-Identifier: MIT
// The receive path of the traffic subcommands, shared with the live views.
#pragma once

#include <vector>

#include "common/Args.h"
#include "common/Device.h"
#include "net/Client.h"

namespace wcantool {

// --bitrate, --dbitrate, --fd and --listen-only.
ChannelSettings parseSettings(const Args &args);

// Appends what the server sent, as the local dump would show it: the
// server's time stamps in place of the host's; waits up to waitMs for the
// first frame.
void receiveRemote(net::Client &client, std::vector<RxFrame> &batch, int waitMs);

} // namespace wcantool
