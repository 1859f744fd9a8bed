#pragma once

#include <chrono>
#include <span>
#include <string>

namespace kelvane {

/// Gives up every right that looking at processes doesn't take, for good, here and in processes to come. What
/// is left: tracing, kernel stacks, and files of other users. Of those only what this process had.
void keepRightsToLook();

/// Limits this process and those that it starts in memory, CPU time (each) and descriptors, lets them leave
/// no core files, and makes them the first that the kernel ends when memory runs out.
void limitResources(std::chrono::seconds cpuTime);

/// Limits what is written from now on. What the flight recorder's pages are kept in grows without end, and is
/// mostly a hole: nobody could add to it any more.
void limitReport();

/// Closes all descriptors but these, which are in ascending order.
void closeAllBut(std::span<const int> kept);

/// Gives up everything but working on memory, reading descriptors that are open and exchanging messages over
/// those: no capability, and a filter of system calls that ends the process at any other. Returns why that
/// could not be done; empty: it is.
std::string dropAllRights();

}  // namespace kelvane
