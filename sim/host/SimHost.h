// SPDX-License-Identifier: MIT
// The simulation host: the one process of a user that owns the simulated
// buses every process with WCAN_SIM shares. Each process keeps its own device
// models and sends the frames its adapters put on a bus here; the host paces
// and arbitrates them (PacedBus) and hands each frame to every process that
// holds an adapter cabled to the sending channel, and tells the sender when
// its frame went out. It keeps the adapter slots, so every process sees the
// same serial numbers and ports, and ends a while after its last client left.
#pragma once

namespace wcansim {

// The host program: takes the user's host lock (exits at once with 0 if
// another host holds it), listens on the user's socket, detaches from its
// starter unless given --foreground, and serves until stopped or idle.
// WCAN_SIM_LINGER_MS sets how long it outlives its last client (3000).
int simulationHostMain(int argc, char **argv);

} // namespace wcansim
