#pragma once

namespace quorveld {

/// Writes one report of where the machine's memory is into the log directory.
///
/// The report is built in memory, written with one write into the cache directory, and renamed into place
/// when it is whole; when anything that it must contain can't be had, no file remains. Work queue only;
/// blocks it while the report is made, not for the disk.
void take_memory_snapshot();

}  // namespace quorveld
