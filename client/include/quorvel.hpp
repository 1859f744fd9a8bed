#pragma once

#include <quorvel.h>

namespace quorvel {

/// Marks an operation from construction to the end of the scope, in any free slot.
class ScopedOperation {
 public:
  explicit ScopedOperation(const char* name, bool wantsKelvane = false)
      : operation_(qv_begin(name, wantsKelvane)) {}
  ~ScopedOperation() { qv_end(operation_); }
  ScopedOperation(const ScopedOperation&) = delete;
  ScopedOperation& operator=(const ScopedOperation&) = delete;

  /// False when every slot was taken, or the process has no region.
  bool tracked() const { return operation_.owner != 0; }

 private:
  qv_operation operation_;
};

/// A slot of the constructing thread, for what it does again and again. Stays on that thread.
class Slot {
 public:
  explicit Slot(const char* name) : slot_(qv_slot_claim(name)) {}
  ~Slot() { qv_slot_release(slot_); }
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;

  explicit operator bool() const { return slot_ != nullptr; }
  qv_slot* get() const { return slot_; }

 private:
  qv_slot* slot_;
};

/// One use of a slot, from construction to the end of the scope. Uses of a slot may nest (qv_turn_begin).
class ScopedTurn {
 public:
  explicit ScopedTurn(const Slot& slot, bool wantsKelvane = false) : slot_(slot.get()) {
    qv_turn_begin(slot_, wantsKelvane);
  }
  ~ScopedTurn() { qv_turn_end(slot_); }
  ScopedTurn(const ScopedTurn&) = delete;
  ScopedTurn& operator=(const ScopedTurn&) = delete;

 private:
  qv_slot* slot_;
};

}  // namespace quorvel
