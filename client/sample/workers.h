#pragma once

#include <cstdint>
#include <thread>
#include <vector>

namespace quorvel_sample {

/// A pipe; both ends are closed on destruction.
class Pipe {
 public:
  /// Aborts with a message when the system has no descriptors left.
  explicit Pipe(int flags);
  ~Pipe();
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int reader() const { return reader_; }
  int writer() const { return writer_; }
  void closeWriter();

 private:
  int reader_;
  int writer_;
};

/// Threads that take seeds from one pipe, compute a checksum of the data that each stands for, and put it
/// into another. Each job is an operation of its own, in whatever slot is free.
class Workers {
 public:
  explicit Workers(int count);
  ~Workers();

  /// Never blocks; a job that finds the pipe full is dropped, which tells whether the workers keep up.
  bool submit(uint64_t seed);

  /// Polls readable when results are there.
  int resultFd() const { return results_.reader(); }
  /// How many results were taken now.
  int takeResults();

 private:
  void work();

  Pipe jobs_;
  Pipe results_;
  std::vector<std::jthread> threads_;
};

}  // namespace quorvel_sample
