// SPDX-License-Identifier: MIT
// Control interface of the simulated adapters, for tests and tools. The
// simulation layer (libwcan-sim.so) defines the libusb-1.0 functions the
// library uses over these adapters; a host program loads it instead of the
// real libusb.
//
// Adapters can also be attached from the environment before the first
// libusb_init: WCAN_SIM=41,41,4,61 plugs in two CAN FD adapters of type 41,
// one classic adapter of type 4 and one recorder of type 61.
// WCAN_SIM_TRACE=1 logs every transfer as hex on standard error.
//
// Frames take the time their bits take at the channels' bit rates, one at a
// time per bus, and a write of frames waits while the adapter's transmit
// queue is full. WCAN_SIM_PACE=0 in the environment, or setPacing(false),
// turns this off: a frame then reaches its receivers before the write that
// sent it returns.
#pragma once

#include <cstdint>
#include <vector>

#include "SimModel.h"

namespace wcansim {

using AdapterId = int;

// Remove every adapter and every bus link; the next plugIn starts afresh.
void reset();

// Attach an adapter of a device type with that type's USB ids, on a USB port
// (bus and port path) of its own. Its channel 2k is joined to channel 2k+1,
// as by a cable between the two ports. Returns -1 for a type without a model.
AdapterId plugIn(unsigned devType);

// Unplug: every transfer fails with LIBUSB_ERROR_NO_DEVICE and the adapter
// leaves the device list; the frames it still had to send are lost. Replug:
// it comes back on the same port with a new address, first in the device
// list, in its reset state, with its device clock restarted.
void unplug(AdapterId adapter);
void replug(AdapterId adapter);

// Accept writes but never answer on any IN endpoint (reads time out).
void setSilent(AdapterId adapter, bool silent);

// Tamper with the next `count` replies queued on interrupt IN endpoint 0x81:
//  Short:   cut the reply to `value` bytes;
//  Foreign: replace byte 1 (the echoed command code) with `value`;
//  Status:  set byte 3 (the status byte) to `value`.
enum class ReplyFault { Short, Foreign, Status };
void injectReplyFault(AdapterId adapter, ReplyFault fault, uint8_t value, int count = 1);

// Push raw bytes into an IN endpoint as if the device had sent them.
void pushIn(AdapterId adapter, uint8_t ep, const Bytes &bytes);

// A backlog on the stream endpoint of a streaming adapter (the CAN FD
// family): `frames`, as its channels would have received them now, are
// encoded once into the adapter's stream and handed to the host's reads
// `times` times over, as fast as it reads, after what is already queued; it
// replaces an earlier backlog. Frames of stopped channels, or rejected by a
// channel's filter, are left out. False when the adapter has no stream or
// nothing is left to send. For measuring the host side beyond any bus rate.
bool streamBacklog(AdapterId adapter, const std::vector<ChannelFrame> &frames, uint64_t times);

// Every transfer the host wrote, per OUT endpoint, in order.
std::vector<Bytes> written(AdapterId adapter, uint8_t ep);
void clearWritten(AdapterId adapter);

// Put a frame on the bus of a channel as if a foreign node had sent it: the
// channel and the channels linked to it receive it (if started). Returns once
// the frame has crossed the bus.
void injectFrame(AdapterId adapter, unsigned channel, const CanFrame &frame);

// The model behind an adapter, for assertions on its state. Use only while no
// other thread drives the adapter.
DeviceModel *model(AdapterId adapter);

// Frames each adapter channel put on the bus / received from it.
uint64_t framesSent(AdapterId adapter, unsigned channel);
uint64_t framesDelivered(AdapterId adapter, unsigned channel);

// Whether frames take their time on the bus (on unless WCAN_SIM_PACE=0).
// Turning pacing off carries the frames still queued at once.
void setPacing(bool on);
bool pacing();

// When a read on IN endpoint `ep` last returned data: nanoseconds of
// std::chrono::steady_clock since its epoch (0 if never). Benchmarks time
// the library from the end of the bulk read with it.
int64_t lastReadEndNs(AdapterId adapter, uint8_t ep);

// Nanoseconds the simulated adapters spent answering asynchronous IN
// transfers (packing records, filling the transfers), summed over all
// adapters. That work runs on whichever thread handles USB events, the
// library's own; a real adapter does it on its own hardware, so benchmarks
// take it off that thread's CPU.
uint64_t deviceServiceNs();
// Nanoseconds the asynchronous transfers' callbacks took (the host library's
// own code run by the event handling), on the same clock.
uint64_t transferCallbackNs();

// How a read that finds nothing to hand over waits, for harnesses that run
// the library on virtual time. The policy is asked before every wait of a
// read (with the adapter's lock held: it must not call back into the
// simulation): Block waits as ever for data, an unplug or the time-out;
// TimeOut ends the read at once with LIBUSB_ERROR_TIMEOUT, as if its time-out
// had passed. wakeReaders() makes every waiting read ask again. With no
// policy (the default) every read blocks.
enum class ReadWait { Block, TimeOut };
using ReadWaitPolicy = ReadWait (*)(uint8_t ep, unsigned timeoutMs);
void setReadWaitPolicy(ReadWaitPolicy policy);
void wakeReaders();

} // namespace wcansim

// The same essentials with C linkage, for programs that load the layer with
// dlopen (the command line tool).
extern "C" {
int wcan_sim_plug_in(unsigned devType);
void wcan_sim_reset(void);
void wcan_sim_unplug(int adapter);
void wcan_sim_replug(int adapter);
void wcan_sim_set_pacing(int on);
}
