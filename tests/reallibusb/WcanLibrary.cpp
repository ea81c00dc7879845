// SPDX-License-Identifier: MIT
#include "WcanLibrary.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>

#include "RealLibusb.h"

namespace wcanumock {

namespace {

void *symbol(void *library, const char *name) {
  void *address = dlsym(library, name);
  if (address == nullptr)
    throw std::runtime_error(std::string("libwcan lacks ") + name);
  return address;
}

WcanApi load() {
  UsbfsTestbed::instance();
  void *library = dlopen(WCAN_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr)
    throw std::runtime_error(std::string("cannot load libwcan: ") + dlerror());
  WcanApi api;
#define WCAN_API_LOAD(name)                                                                        \
  api.name = reinterpret_cast<decltype(api.name)>(symbol(library, "WCAN_" #name));
  WCAN_REAL_LIBUSB_FUNCTIONS(WCAN_API_LOAD)
#undef WCAN_API_LOAD
  return api;
}

} // namespace

const WcanApi &wcan() {
  static const WcanApi api = load();
  return api;
}

} // namespace wcanumock
