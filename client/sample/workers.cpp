#include "client/sample/workers.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>

#include "client/include/quorvel.hpp"

namespace quorvel_sample {
namespace {

constexpr int kBytesPerJob = 1 << 18;

uint64_t checksum(uint64_t seed) {
  uint64_t state = seed | 1;
  uint64_t sum = 14695981039346656037u;
  for (int i = 0; i < kBytesPerJob; ++i) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    sum = (sum ^ (state & 0xff)) * 1099511628211u;
  }
  return sum;
}

}  // namespace

Pipe::Pipe(int flags) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), flags | O_CLOEXEC) < 0) {
    std::perror("quorvel-sample: pipe2");
    std::abort();
  }
  reader_ = ends[0];
  writer_ = ends[1];
}

Pipe::~Pipe() {
  close(reader_);
  closeWriter();
}

void Pipe::closeWriter() {
  if (writer_ >= 0) close(writer_);
  writer_ = -1;
}

Workers::Workers(int count) : jobs_(0), results_(O_NONBLOCK) {
  fcntl(jobs_.writer(), F_SETFL, O_NONBLOCK);
  for (int i = 0; i < count; ++i) threads_.emplace_back([this] { work(); });
}

Workers::~Workers() {
  jobs_.closeWriter();  // each worker reads the end of the file
  threads_.clear();
}

bool Workers::submit(uint64_t seed) {
  return write(jobs_.writer(), &seed, sizeof seed) == sizeof seed;
}

int Workers::takeResults() {
  int taken = 0;
  uint64_t sum;
  while (read(results_.reader(), &sum, sizeof sum) == sizeof sum) ++taken;
  return taken;
}

void Workers::work() {
  uint64_t seed;
  while (read(jobs_.reader(), &seed, sizeof seed) == sizeof seed) {
    const quorvel::ScopedOperation operation("WorkerJob");
    const uint64_t sum = checksum(seed);
    // A full pipe means that the main loop hangs; the result is of no use to it by then.
    if (write(results_.writer(), &sum, sizeof sum) < 0) continue;
  }
}

}  // namespace quorvel_sample
