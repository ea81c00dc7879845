// SPDX-License-Identifier: MIT
#include "common/Runtime.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>

namespace wcantool {

struct Runtime::DlHandle {
  void *handle = nullptr;
  std::string path;

  DlHandle(std::string libPath, int flags) : path(std::move(libPath)) {
    handle = dlopen(path.c_str(), flags);
    if (!handle) {
      const char *why = dlerror();
      throw LoadError{"cannot load " + path + ": " + (why ? why : "unknown reason")};
    }
  }
  // The libraries stay loaded until the process ends: libwcan.so closes the
  // devices still open from its own unload handlers, which need libusb.
  ~DlHandle() = default;

  void *symbol(const char *name, bool required) const {
    dlerror();
    void *sym = dlsym(handle, name);
    if (!sym && required)
      throw LoadError{path + " has no function " + name};
    return sym;
  }
};

namespace {

// Next to the executable in the build tree; else wherever the dynamic
// loader finds the installed library.
std::string libraryPath(const std::string &dir, const char *name, const char *installedName) {
  std::string local = dir + "/" + name;
  return access(local.c_str(), F_OK) == 0 ? local : installedName;
}

template <typename Fn> void resolve(const void *sym, Fn &fn) {
  fn = reinterpret_cast<Fn>(const_cast<void *>(sym));
}

} // namespace

bool UsbApi::complete() const {
  return init && exit && getDeviceList && freeDeviceList && getDeviceDescriptor && getBusNumber &&
         getDeviceAddress;
}

std::string executableDir() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0)
    return ".";
  std::string path(buf, static_cast<size_t>(n));
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

Runtime::Runtime(const LoadOptions &options) : simulated_(options.simulate) {
  std::string dir = executableDir();
  if (simulated_) {
    // The simulation layer plugs in the adapters named by WCAN_SIM on its
    // first libusb_init, which libwcan.so may already run while loading.
    if (options.simSpec.empty())
      unsetenv("WCAN_SIM");
    else
      setenv("WCAN_SIM", options.simSpec.c_str(), 1);
    usbLib_ = std::make_unique<DlHandle>(libraryPath(dir, "libwcan-sim.so", "libwcan-sim.so"),
                                         RTLD_NOW | RTLD_GLOBAL);
    resolve(usbLib_->symbol("wcan_sim_plug_in", true), sim_.plugIn);
    resolve(usbLib_->symbol("wcan_sim_reset", true), sim_.reset);
    resolve(usbLib_->symbol("wcan_sim_unplug", true), sim_.unplug);
    resolve(usbLib_->symbol("wcan_sim_replug", true), sim_.replug);
  } else {
    usbLib_ = std::make_unique<DlHandle>("libusb-1.0.so.0", RTLD_NOW | RTLD_GLOBAL);
  }
  resolve(usbLib_->symbol("libusb_init", false), usb_.init);
  resolve(usbLib_->symbol("libusb_exit", false), usb_.exit);
  resolve(usbLib_->symbol("libusb_get_device_list", false), usb_.getDeviceList);
  resolve(usbLib_->symbol("libusb_free_device_list", false), usb_.freeDeviceList);
  resolve(usbLib_->symbol("libusb_get_device_descriptor", false), usb_.getDeviceDescriptor);
  resolve(usbLib_->symbol("libusb_get_bus_number", false), usb_.getBusNumber);
  resolve(usbLib_->symbol("libusb_get_device_address", false), usb_.getDeviceAddress);

  wcanLib_ = std::make_unique<DlHandle>(libraryPath(dir, "libwcan.so", "libwcan.so.1"),
                                        RTLD_NOW | RTLD_LOCAL);
#define WCAN_TOOL_RESOLVE(name) resolve(wcanLib_->symbol(#name, true), wcan_.name);
  WCAN_TOOL_API(WCAN_TOOL_RESOLVE)
#undef WCAN_TOOL_RESOLVE
}

Runtime::~Runtime() = default;

std::string Runtime::lastError() const {
  const int code = wcan_.WCAN_GetLastError();
  const char *text = wcan_.WCAN_GetLastErrorStr();
  // Some refusals leave the last error at 0, whose text reads as a success.
  if (code == 0)
    return "the library refused without an error code (error 0)";
  return std::string(text && *text ? text : "no message") + " (error " + std::to_string(code) + ")";
}

} // namespace wcantool
