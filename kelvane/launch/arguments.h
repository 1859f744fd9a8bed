#pragma once

#include <optional>
#include <string>
#include <vector>

#include "abi/kelvane.h"
#include "kelvane/report/dump_request.h"

namespace kelvane {

/// The program's one argument if it is to be the sampler (kelvane/sampling/sampler.h), with the socket of its
/// orders as its standard input.
inline constexpr const char* kSamplerOption = "sample";

// What the library tells kelvane-capture beside the reason text: arguments of the form NAME=VALUE.

/// The reason text of a call, cut where parseRequest finds it too long; empty if there is none.
std::string reasonOf(const kelvane_options* options);

std::vector<std::string> argumentsOf(const DumpRequest& request, const std::string& notLooking);

struct Order {
  DumpRequest request;
  std::string notLooking;  // why the process must not be looked at; empty: it is to be
};

/// Nothing if an argument is not understood.
std::optional<Order> readOrder(const std::string& reason, const std::vector<std::string>& arguments);

}  // namespace kelvane
