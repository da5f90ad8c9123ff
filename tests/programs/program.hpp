#pragma once

// What the test programs share: the standard headers they use, the library's
// error and JSON types, and one way to end on an Error.
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "client/domain/error.hpp"
#include "client/domain/json.hpp"

namespace program {

// Runs the program's work; an Error it raises is printed to `to` as
// "PREFIX CODE: MESSAGE" and ends the program with status 1.
inline int reporting(std::ostream& to, std::string_view prefix, const std::function<int()>& work) {
  try {
    return work();
  } catch (const zorvi::Error& error) {
    to << prefix << error.code << ": " << error.what() << std::endl;
    return 1;
  }
}
inline int reporting(const std::function<int()>& work) { return reporting(std::cout, "", work); }

}  // namespace program
