// Where log lines go: a callable that takes one line without its line feed and is safe from any
// thread. Programs install one that writes to standard output; tests install their own.
#pragma once

#include <functional>
#include <string_view>

namespace goosestack {

using LogSink = std::function<void(std::string_view)>;

}  // namespace goosestack
