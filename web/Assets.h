// SPDX-License-Identifier: MIT
// The page's files, compiled into the program from web/static so that a
// build tree serves them without being installed.
#pragma once

#include <string_view>

namespace wcantool::web {

struct Asset {
  std::string_view path; // "/app.js"
  std::string_view type; // "text/javascript; charset=utf-8"
  std::string_view body;
};

// The file served at `path` ("/" is the page), or null.
const Asset *findAsset(std::string_view path);

} // namespace wcantool::web
