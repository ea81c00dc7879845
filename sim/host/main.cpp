// SPDX-License-Identifier: MIT
// wcan-simhost: the process that owns the simulated buses the user's
// programs share. Programs start it themselves; see SimHost.h.
#include "SimHost.h"

int main(int argc, char **argv) { return wcansim::simulationHostMain(argc, argv); }
