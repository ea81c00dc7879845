// SPDX-License-Identifier: MIT
#include "UsbfsTestbed.h"

#include "InQueue.h"

#include <libusb-1.0/libusb.h>
#include <linux/ioctl.h>
#include <linux/usb/ch9.h>
#include <linux/usbdevice_fs.h>
#include <umockdev.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace wcanumock {

namespace {

using wcansim::Bytes;
using wcansim::CanFrame;
using wcansim::DeviceModel;
using wcansim::EndpointShape;
using wcansim::InQueue;

// ---------------------------------------------------------------------------
// Endpoint layout of each family, as its descriptors announce it.

enum class EpType : uint8_t { Bulk = 2, Interrupt = 3 };
struct Endpoint {
  uint8_t address;
  EpType type;
};
struct Layout {
  std::array<Endpoint, 5> endpoints;
  size_t count;
};

constexpr Layout kCanFdLayout{{{{0x01, EpType::Interrupt},
                                {0x81, EpType::Interrupt},
                                {0x02, EpType::Bulk},
                                {0x82, EpType::Bulk},
                                {0x83, EpType::Bulk}}},
                              5};
constexpr Layout kClassicLayout{{{{0x01, EpType::Interrupt},
                                  {0x81, EpType::Interrupt},
                                  {0x02, EpType::Bulk},
                                  {0x82, EpType::Bulk}}},
                                4};
constexpr Layout kRecorderLayout{{{{0x01, EpType::Bulk}, {0x81, EpType::Bulk}}}, 2};

const Layout &layoutOf(unsigned devType) {
  switch (devType) {
  case 3:
  case 4:
    return kClassicLayout;
  case 61:
  case 62:
    return kRecorderLayout;
  default:
    return kCanFdLayout;
  }
}

// String descriptor index of the serial number. The classic adapters have
// none; the other families answer it.
constexpr uint8_t kSerialIndex = 3;
bool hasSerial(const Layout &layout) { return &layout != &kClassicLayout; }

// Device descriptor, one configuration with one vendor-specific interface
// holding the family's endpoints, as sysfs shows them in "descriptors".
Bytes descriptorsOf(uint16_t vid, uint16_t pid, const Layout &layout) {
  const auto lo = [](unsigned v) { return static_cast<uint8_t>(v & 0xFF); };
  const auto hi = [](unsigned v) { return static_cast<uint8_t>(v >> 8); };
  const uint8_t serial = hasSerial(layout) ? kSerialIndex : 0;
  Bytes d = {18,      1,       0x00,    0x02, 0,    0, 0, 64,     lo(vid),
             hi(vid), lo(pid), hi(pid), 0x00, 0x01, 0, 0, serial, 1};
  const unsigned total = 9 + 9 + 7 * static_cast<unsigned>(layout.count);
  const Bytes config = {9, 2, lo(total), hi(total), 1, 1, 0, 0x80, 50};
  const Bytes interface = {9, 4, 0, 0, static_cast<uint8_t>(layout.count), 0xFF, 0, 0, 0};
  d.insert(d.end(), config.begin(), config.end());
  d.insert(d.end(), interface.begin(), interface.end());
  for (size_t i = 0; i < layout.count; ++i) {
    const Endpoint &ep = layout.endpoints[i];
    const bool interrupt = ep.type == EpType::Interrupt;
    const Bytes e = {7,
                     5,
                     ep.address,
                     static_cast<uint8_t>(ep.type),
                     64,
                     0,
                     static_cast<uint8_t>(interrupt ? 1 : 0)};
    d.insert(d.end(), e.begin(), e.end());
  }
  return d;
}

std::string hex(const Bytes &bytes) {
  std::string s;
  char two[3];
  for (uint8_t b : bytes) {
    std::snprintf(two, sizeof two, "%02x", b);
    s += two;
  }
  return s;
}

// ---------------------------------------------------------------------------
// GLib references held by the handler.

struct DataUnref {
  void operator()(UMockdevIoctlData *d) const { umockdev_ioctl_data_unref(d); }
};
using DataRef = std::unique_ptr<UMockdevIoctlData, DataUnref>;

struct ObjectUnref {
  void operator()(gpointer o) const { g_object_unref(o); }
};
using ClientRef = std::unique_ptr<UMockdevIoctlClient, ObjectUnref>;

DataRef resolve(UMockdevIoctlData *parent, size_t offset, size_t len) {
  return DataRef(umockdev_ioctl_data_resolve(parent, offset, len, nullptr));
}

// The generation of the plug-in a client (an open file of the node) belongs to.
constexpr const char *kGenerationKey = "wcan-generation";
uint32_t generationOf(UMockdevIoctlClient *client) {
  return GPOINTER_TO_UINT(g_object_get_data(G_OBJECT(client), kGenerationKey));
}

// One submitted transfer, held until the client reaps it.
struct Urb {
  ClientRef client;
  DataRef urb;
  DataRef buffer; // null for a zero-length transfer
  uint8_t endpoint = 0;
  uint32_t generation = 0;

  usbdevfs_urb &fields() const { return *reinterpret_cast<usbdevfs_urb *>(urb->data); }
  void finish(int status, int actualLength) const {
    fields().status = status;
    fields().actual_length = actualLength;
  }
};

constexpr size_t kMaxQueuedTransfers = 1024;
constexpr int kMaxRoutingRounds = 16;

} // namespace

// ---------------------------------------------------------------------------
// One adapter: its model behind IN queues and the URBs of its clients. Every
// member is guarded by the test bed's mutex.

class EmulatedAdapter final : public wcansim::ModelHost {
public:
  EmulatedAdapter(unsigned devType, std::unique_ptr<DeviceModel> model, uint8_t bus)
      : model_(std::move(model)), layout_(layoutOf(devType)), bus_(bus),
        pluggedAt_(std::chrono::steady_clock::now()) {}

  uint8_t bus() const { return bus_; }
  std::string sysPath() const { return "/sys/devices/usb" + std::to_string(bus_); }
  std::string devNode() const {
    char node[32];
    std::snprintf(node, sizeof node, "/dev/bus/usb/%03u/001", bus_);
    return node;
  }
  std::string record() const;

  bool plugged() const { return plugged_; }
  uint32_t generation() const { return generation_; }
  bool current(uint32_t generation) const { return plugged_ && generation == generation_; }
  unsigned opens() const { return opens_; }
  uint64_t delivered(unsigned ch) const { return ch < delivered_.size() ? delivered_[ch] : 0; }
  bool channelStarted(unsigned ch) const { return model_->channelStarted(ch); }

  void connected(UMockdevIoctlClient *client) {
    ++opens_;
    g_object_set_data(G_OBJECT(client), kGenerationKey,
                      GUINT_TO_POINTER(plugged_ ? generation_ : 0));
  }
  void unplug() {
    plugged_ = false;
    clearQueues();
  }
  void replug() {
    ++generation_;
    pluggedAt_ = std::chrono::steady_clock::now();
    clearQueues();
    model_->onReset();
    plugged_ = true;
  }

  // usbfs requests; each returns 0 or an errno value.
  int submit(UMockdevIoctlClient *client, DataRef urb, DataRef buffer);
  int controlIn(const Urb &urb) const;
  int discard(UMockdevIoctlClient *client, unsigned long urbAddress);
  // The next finished URB of the client, or an errno value.
  int reap(UMockdevIoctlClient *client, Urb &out);
  int reset(UMockdevIoctlClient *client);
  int checkAlive(UMockdevIoctlClient *client) const {
    return current(generationOf(client)) ? 0 : ENODEV;
  }

  // ModelHost
  uint32_t deviceTimeUs() const override {
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                        std::chrono::steady_clock::now() - pluggedAt_)
                        .count();
    return static_cast<uint32_t>(static_cast<uint64_t>(us));
  }
  void queueIn(uint8_t ep, Bytes bytes) override {
    InQueue &q = in_[ep & 0x0F];
    if (!bytes.empty() && q.transfers.size() < kMaxQueuedTransfers)
      q.transfers.push_back(std::move(bytes));
  }
  void sendToBus(unsigned channel, const CanFrame &frame) override {
    outbox_.push_back({channel, frame});
  }

private:
  struct BusFrame {
    unsigned channel;
    CanFrame frame;
  };

  const Endpoint *endpoint(uint8_t address) const {
    for (size_t i = 0; i < layout_.count; ++i)
      if (layout_.endpoints[i].address == address)
        return &layout_.endpoints[i];
    return nullptr;
  }
  void clearQueues() {
    for (InQueue &q : in_)
      q.clear();
    outbox_.clear();
  }
  int hostWrite(const Urb &urb);
  void routeBus();
  void fillPending();
  size_t takeFromQueue(uint8_t ep, uint8_t *buf, size_t len);

  const std::unique_ptr<DeviceModel> model_;
  const Layout &layout_;
  const uint8_t bus_;
  std::chrono::steady_clock::time_point pluggedAt_;
  bool plugged_ = true;
  uint32_t generation_ = 1;
  unsigned opens_ = 0;
  std::array<InQueue, 16> in_;
  std::vector<BusFrame> outbox_;
  std::deque<Urb> pending_; // IN transfers waiting for data
  std::deque<Urb> done_;    // finished, not reaped yet
  std::array<uint64_t, 16> delivered_{};
};

std::string EmulatedAdapter::record() const {
  char text[1024];
  std::snprintf(text, sizeof text,
                "P: /devices/usb%u\n"
                "N: bus/usb/%03u/001\n"
                "E: SUBSYSTEM=usb\n"
                "E: DRIVER=usb\n"
                "E: BUSNUM=%03u\n"
                "E: DEVNUM=001\n"
                "E: DEVNAME=/dev/bus/usb/%03u/001\n"
                "E: DEVTYPE=usb_device\n"
                "E: PRODUCT=%x/%x/100\n"
                "A: bConfigurationValue=1\\n\n"
                "A: busnum=%u\\n\n"
                "A: devnum=1\\n\n"
                "A: speed=12\\n\n"
                "A: idVendor=%04x\\n\n"
                "A: idProduct=%04x\\n\n",
                bus_, bus_, bus_, bus_, model_->vendorId(), model_->productId(), bus_,
                model_->vendorId(), model_->productId());
  return std::string(text) +
         "H: descriptors=" + hex(descriptorsOf(model_->vendorId(), model_->productId(), layout_)) +
         "\n";
}

int EmulatedAdapter::submit(UMockdevIoctlClient *client, DataRef urbData, DataRef buffer) {
  Urb urb{ClientRef(static_cast<UMockdevIoctlClient *>(g_object_ref(client))), std::move(urbData),
          std::move(buffer), 0, generationOf(client)};
  if (!current(urb.generation))
    return ENODEV;
  const usbdevfs_urb &f = urb.fields();
  urb.endpoint = f.endpoint;
  if (f.type == USBDEVFS_URB_TYPE_CONTROL) {
    const int answered = controlIn(urb);
    urb.finish(answered < 0 ? -EPIPE : 0, std::max(answered, 0));
    done_.push_back(std::move(urb));
    return 0;
  }
  const Endpoint *ep = endpoint(f.endpoint);
  if (ep == nullptr)
    return ENOENT;
  // usbfs refuses an interrupt URB on a bulk endpoint (the reverse it allows).
  if (f.type == USBDEVFS_URB_TYPE_INTERRUPT && ep->type != EpType::Interrupt)
    return EINVAL;
  if (f.type != USBDEVFS_URB_TYPE_INTERRUPT && f.type != USBDEVFS_URB_TYPE_BULK)
    return EINVAL;
  if ((f.endpoint & USB_DIR_IN) == 0) {
    const int accepted = hostWrite(urb);
    urb.finish(accepted < 0 ? -EPIPE : 0, std::max(accepted, 0));
    done_.push_back(std::move(urb));
    routeBus();
  } else {
    pending_.push_back(std::move(urb));
  }
  fillPending();
  return 0;
}

// The one control request modelled is GET_DESCRIPTOR of a string (the
// language list and the serial number); any other stalls (-1). The reply
// goes after the 8-byte setup packet; returns its length.
int EmulatedAdapter::controlIn(const Urb &urb) const {
  const size_t room = urb.buffer ? static_cast<size_t>(urb.fields().buffer_length) : 0;
  if (room < 8)
    return -1;
  uint8_t *setup = urb.buffer->data;
  const uint16_t value = static_cast<uint16_t>(setup[2] | setup[3] << 8);
  const size_t wanted = std::min<size_t>(static_cast<size_t>(setup[6] | setup[7] << 8), room - 8);
  if (setup[0] != USB_DIR_IN || setup[1] != USB_REQ_GET_DESCRIPTOR || (value >> 8) != USB_DT_STRING)
    return -1;
  Bytes desc;
  const uint8_t index = static_cast<uint8_t>(value);
  if (index == 0) {
    desc = {4, USB_DT_STRING, 0x09, 0x04};
  } else if (index == kSerialIndex && hasSerial(layout_)) {
    char text[16];
    std::snprintf(text, sizeof text, "WU%04X%04X", model_->productId(), bus_);
    desc = {static_cast<uint8_t>(2 + 2 * std::strlen(text)), USB_DT_STRING};
    for (const char *c = text; *c != '\0'; ++c) {
      desc.push_back(static_cast<uint8_t>(*c));
      desc.push_back(0);
    }
  } else {
    return -1;
  }
  const size_t n = std::min(desc.size(), wanted);
  std::memcpy(setup + 8, desc.data(), n);
  return static_cast<int>(n);
}

int EmulatedAdapter::hostWrite(const Urb &urb) {
  const usbdevfs_urb &f = urb.fields();
  const size_t len = urb.buffer ? static_cast<size_t>(f.buffer_length) : 0;
  const uint8_t *data = urb.buffer ? urb.buffer->data : nullptr;
  const int accepted = model_->onHostWrite(*this, f.endpoint, data, len);
  return accepted < 0 ? accepted : std::min(accepted, static_cast<int>(len));
}

// Channel 2k and 2k+1 share a cable; a listen-only channel never drives it.
void EmulatedAdapter::routeBus() {
  for (int round = 0; round < kMaxRoutingRounds && !outbox_.empty(); ++round) {
    std::vector<BusFrame> frames;
    frames.swap(outbox_);
    for (const BusFrame &f : frames) {
      const unsigned peer = f.channel ^ 1u;
      if (f.channel >= model_->channelCount() || model_->channelListenOnly(f.channel))
        continue;
      if (peer >= model_->channelCount() || !model_->channelStarted(peer))
        continue;
      model_->onBusFrame(*this, peer, f.frame, deviceTimeUs());
      ++delivered_[peer % delivered_.size()];
    }
  }
}

size_t EmulatedAdapter::takeFromQueue(uint8_t ep, uint8_t *buf, size_t len) {
  return in_[ep & 0x0F].take(model_->endpointShape(ep), buf, len);
}

// Serves waiting IN transfers in the order they were submitted.
void EmulatedAdapter::fillPending() {
  if (!plugged_)
    return;
  for (auto it = pending_.begin(); it != pending_.end();) {
    if (it->generation != generation_ || !it->buffer) {
      ++it;
      continue;
    }
    InQueue &q = in_[it->endpoint & 0x0F];
    if (q.transfers.empty())
      model_->onReadEmpty(*this, it->endpoint);
    if (q.transfers.empty()) {
      ++it;
      continue;
    }
    const size_t len = static_cast<size_t>(it->fields().buffer_length);
    const size_t n = takeFromQueue(it->endpoint, it->buffer->data, len);
    it->finish(0, static_cast<int>(n));
    done_.push_back(std::move(*it));
    it = pending_.erase(it);
  }
}

int EmulatedAdapter::discard(UMockdevIoctlClient *client, unsigned long urbAddress) {
  const auto it = std::find_if(pending_.begin(), pending_.end(), [&](const Urb &u) {
    return u.client.get() == client && u.urb->client_addr == urbAddress;
  });
  if (it == pending_.end())
    return EINVAL;
  it->finish(-ENOENT, 0);
  done_.push_back(std::move(*it));
  pending_.erase(it);
  return 0;
}

int EmulatedAdapter::reap(UMockdevIoctlClient *client, Urb &out) {
  const auto mine = [client](const Urb &u) { return u.client.get() == client; };
  fillPending();
  auto it = std::find_if(done_.begin(), done_.end(), mine);
  if (it != done_.end()) {
    out = std::move(*it);
    done_.erase(it);
    return 0;
  }
  if (checkAlive(client) == 0)
    return EAGAIN;
  // The device is gone: what was still in flight ends as shut down.
  it = std::find_if(pending_.begin(), pending_.end(), mine);
  if (it == pending_.end())
    return ENODEV;
  it->finish(-ESHUTDOWN, 0);
  out = std::move(*it);
  pending_.erase(it);
  return 0;
}

// A port reset brings the adapter back to its power-on state.
int EmulatedAdapter::reset(UMockdevIoctlClient *client) {
  if (checkAlive(client) != 0)
    return ENODEV;
  clearQueues();
  model_->onReset();
  return 0;
}

// ---------------------------------------------------------------------------

class UsbfsTestbed::Impl {
public:
  Impl();
  ~Impl();

  int plugIn(unsigned devType);
  void unplug(int id);
  void replug(int id);
  void removeAll();

  std::mutex mutex;
  std::vector<std::unique_ptr<EmulatedAdapter>> adapters;
  EmulatedAdapter &at(int id) const {
    if (id < 0 || static_cast<size_t>(id) >= adapters.size())
      throw std::out_of_range("no such adapter");
    return *adapters[static_cast<size_t>(id)];
  }

private:
  struct Attached {
    UMockdevIoctlBase *handler;
    std::string node;
  };
  void addRecord(const EmulatedAdapter &adapter);

  UMockdevTestbed *testbed_ = nullptr;
  std::vector<Attached> handlers_;
  std::vector<bool> removed_;
  unsigned nextBus_ = 1;
};

namespace {

struct HandlerContext {
  UsbfsTestbed::Impl *bed;
  int adapter;
};

void completeWith(UMockdevIoctlClient *client, int err) {
  umockdev_ioctl_client_complete(client, err == 0 ? 0 : -1, err);
}

void onClientConnected(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer data) {
  auto *ctx = static_cast<HandlerContext *>(data);
  std::lock_guard<std::mutex> lock(ctx->bed->mutex);
  ctx->bed->at(ctx->adapter).connected(client);
}

int handleSubmit(EmulatedAdapter &adapter, UMockdevIoctlClient *client, UMockdevIoctlData *arg) {
  DataRef urb = resolve(arg, 0, sizeof(usbdevfs_urb));
  if (!urb)
    return EFAULT;
  const auto *f = reinterpret_cast<const usbdevfs_urb *>(urb->data);
  DataRef buffer;
  if (f->buffer_length > 0) {
    buffer =
        resolve(urb.get(), offsetof(usbdevfs_urb, buffer), static_cast<size_t>(f->buffer_length));
    if (!buffer)
      return EFAULT;
  }
  return adapter.submit(client, std::move(urb), std::move(buffer));
}

gboolean onIoctl(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer data) {
  auto *ctx = static_cast<HandlerContext *>(data);
  const unsigned long request = umockdev_ioctl_client_get_request(client);
  UMockdevIoctlData *arg = umockdev_ioctl_client_get_arg(client);
  std::unique_lock<std::mutex> lock(ctx->bed->mutex);
  EmulatedAdapter &adapter = ctx->bed->at(ctx->adapter);
  int err = 0;
  switch (request) {
  case USBDEVFS_GET_CAPABILITIES: {
    DataRef caps = resolve(arg, 0, sizeof(uint32_t));
    if (!caps) {
      err = EFAULT;
      break;
    }
    const uint32_t value = USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                           USBDEVFS_CAP_REAP_AFTER_DISCONNECT | USBDEVFS_CAP_ZERO_PACKET;
    std::memcpy(caps->data, &value, sizeof value);
    break;
  }
  case USBDEVFS_SUBMITURB:
    err = handleSubmit(adapter, client, arg);
    break;
  case USBDEVFS_DISCARDURB: {
    unsigned long address = 0;
    std::memcpy(&address, arg->data, std::min(sizeof address, static_cast<size_t>(arg->data_len)));
    err = adapter.discard(client, address);
    break;
  }
  case USBDEVFS_REAPURB: // never blocks here: libusb only reaps what poll announced
  case USBDEVFS_REAPURBNDELAY: {
    Urb urb;
    err = adapter.reap(client, urb);
    if (err == 0) {
      DataRef slot = resolve(arg, 0, sizeof(void *));
      if (!slot)
        err = EFAULT;
      else
        umockdev_ioctl_data_set_ptr(slot.get(), 0, urb.urb.get());
    }
    break;
  }
  case USBDEVFS_RESET:
    err = adapter.reset(client);
    break;
  case USBDEVFS_CLEAR_HALT:
  case USBDEVFS_RESETEP:
  case USBDEVFS_CLAIMINTERFACE:
  case USBDEVFS_RELEASEINTERFACE:
  case USBDEVFS_SETINTERFACE:
  case USBDEVFS_SETCONFIGURATION:
    err = adapter.checkAlive(client);
    break;
  case USBDEVFS_GETDRIVER:
  case USBDEVFS_IOCTL: // no kernel driver is bound to the interface
    err = adapter.checkAlive(client) != 0 ? ENODEV : ENODATA;
    break;
  default:
    err = ENOTTY;
    break;
  }
  lock.unlock();
  completeWith(client, err);
  return TRUE;
}

} // namespace

UsbfsTestbed::Impl::Impl() {
  testbed_ = umockdev_testbed_new();
  if (testbed_ == nullptr)
    throw std::runtime_error("umockdev test bed could not be created");
}

UsbfsTestbed::Impl::~Impl() {
  g_object_unref(testbed_);
  for (Attached &a : handlers_)
    g_object_unref(a.handler);
}

// A libusb context that lives only while a hot-plug event goes out: it must
// exist before the event (a context created later would find the device in
// sysfs by its scan), and it must not outlive the wait, or it would stand in
// as libusb's implicit default context for the library under test.
class HotplugObserver {
public:
  HotplugObserver() {
    if (libusb_init(&ctx_) != 0)
      throw std::runtime_error("libusb_init failed over the test bed");
  }
  ~HotplugObserver() { libusb_exit(ctx_); }
  HotplugObserver(const HotplugObserver &) = delete;
  HotplugObserver &operator=(const HotplugObserver &) = delete;

  // Every libusb context learns of the event in the same pass of libusb's
  // hot-plug monitor; event handling wakes on each hot-plug message, so this
  // waits without spinning.
  void waitListed(uint8_t bus, bool wanted) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (listed(bus) != wanted) {
      if (std::chrono::steady_clock::now() > deadline)
        throw std::runtime_error("libusb did not see the hot-plug event of bus " +
                                 std::to_string(bus));
      timeval tv{0, 20000};
      libusb_handle_events_timeout(ctx_, &tv);
    }
  }

private:
  bool listed(uint8_t bus) {
    libusb_device **list = nullptr;
    const ssize_t n = libusb_get_device_list(ctx_, &list);
    bool found = false;
    for (ssize_t i = 0; i < n; ++i)
      found = found || libusb_get_bus_number(list[i]) == bus;
    if (n >= 0)
      libusb_free_device_list(list, 1);
    return found;
  }

  libusb_context *ctx_ = nullptr;
};

int UsbfsTestbed::Impl::plugIn(unsigned devType) {
  std::unique_ptr<DeviceModel> model = wcansim::makeModel(devType);
  if (!model)
    return -1;
  if (nextBus_ > 255)
    throw std::runtime_error("no USB bus number left");
  const auto bus = static_cast<uint8_t>(nextBus_++);
  int id = 0;
  {
    std::lock_guard<std::mutex> lock(mutex);
    adapters.push_back(std::make_unique<EmulatedAdapter>(devType, std::move(model), bus));
    removed_.push_back(false);
    id = static_cast<int>(adapters.size() - 1);
  }
  EmulatedAdapter &adapter = at(id);
  HotplugObserver observer;
  // The node must answer before libusb can learn of the device.
  UMockdevIoctlBase *handler = umockdev_ioctl_base_new();
  auto *ctx = new HandlerContext{this, id};
  g_object_set_data_full(G_OBJECT(handler), "ctx", ctx,
                         [](gpointer p) { delete static_cast<HandlerContext *>(p); });
  g_signal_connect(handler, "handle-ioctl", G_CALLBACK(onIoctl), ctx);
  g_signal_connect(handler, "client-connected", G_CALLBACK(onClientConnected), ctx);
  handlers_.push_back({handler, adapter.devNode()});
  GError *error = nullptr;
  if (!umockdev_testbed_attach_ioctl(testbed_, adapter.devNode().c_str(), handler, &error)) {
    std::string why = error ? error->message : "unknown";
    g_clear_error(&error);
    throw std::runtime_error("attaching the usbfs handler failed: " + why);
  }
  addRecord(adapter);
  observer.waitListed(bus, true);
  return id;
}

// The remove event goes out first and libusb must have dropped the device
// before its transfers fail; otherwise the library's recovery could reopen the
// vanished device from a stale device list. The sysfs record goes too, so a
// libusb context created meanwhile does not find it; the node keeps answering
// (as a vanished device) for every client that still holds it open.
void UsbfsTestbed::Impl::unplug(int id) {
  EmulatedAdapter &adapter = at(id);
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (!adapter.plugged())
      return;
  }
  HotplugObserver observer;
  umockdev_testbed_uevent(testbed_, adapter.sysPath().c_str(), "remove");
  observer.waitListed(adapter.bus(), false);
  {
    std::lock_guard<std::mutex> lock(mutex);
    adapter.unplug();
  }
  umockdev_testbed_remove_device(testbed_, adapter.sysPath().c_str());
}

void UsbfsTestbed::Impl::replug(int id) {
  EmulatedAdapter &adapter = at(id);
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (adapter.plugged() || removed_[static_cast<size_t>(id)])
      return;
    adapter.replug();
  }
  HotplugObserver observer;
  addRecord(adapter);
  observer.waitListed(adapter.bus(), true);
}

void UsbfsTestbed::Impl::addRecord(const EmulatedAdapter &adapter) {
  GError *error = nullptr;
  if (!umockdev_testbed_add_from_string(testbed_, adapter.record().c_str(), &error)) {
    std::string why = error ? error->message : "unknown";
    g_clear_error(&error);
    throw std::runtime_error("adding the USB device failed: " + why);
  }
  umockdev_testbed_uevent(testbed_, adapter.sysPath().c_str(), "add");
}

void UsbfsTestbed::Impl::removeAll() {
  for (size_t i = 0; i < adapters.size(); ++i) {
    unplug(static_cast<int>(i));
    removed_[i] = true;
  }
}

// ---------------------------------------------------------------------------

namespace {
UsbfsTestbed *gInstance = nullptr;
}

UsbfsTestbed::UsbfsTestbed() : impl_(std::make_unique<Impl>()) {}
UsbfsTestbed::~UsbfsTestbed() = default;

UsbfsTestbed &UsbfsTestbed::instance() {
  if (gInstance == nullptr)
    gInstance = new UsbfsTestbed();
  return *gInstance;
}

void UsbfsTestbed::shutdown() {
  delete gInstance;
  gInstance = nullptr;
}

int UsbfsTestbed::plugIn(unsigned devType) { return impl_->plugIn(devType); }
void UsbfsTestbed::unplug(int adapter) { impl_->unplug(adapter); }
void UsbfsTestbed::replug(int adapter) { impl_->replug(adapter); }
void UsbfsTestbed::removeAll() { impl_->removeAll(); }

uint8_t UsbfsTestbed::busNumber(int adapter) const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->at(adapter).bus();
}
unsigned UsbfsTestbed::opens(int adapter) const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->at(adapter).opens();
}
uint64_t UsbfsTestbed::framesDelivered(int adapter, unsigned channel) const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->at(adapter).delivered(channel);
}
bool UsbfsTestbed::channelStarted(int adapter, unsigned channel) const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->at(adapter).channelStarted(channel);
}

bool inMockEnvironment() {
  const char *preload = std::getenv("LD_PRELOAD");
  return preload != nullptr && std::strstr(preload, "libumockdev-preload") != nullptr;
}

} // namespace wcanumock
