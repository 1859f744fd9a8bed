#include "memsnapshot/names.h"

#include <array>

#include "base/text.h"

namespace quorveld {

namespace {

// The index is the bit's number.
constexpr std::array kAssertionNames = {
    "\"Audio\"",
    "\"Location\"",
    "\"Accessory\"",
    "\"Bg_Finish_Task\"",
    "\"Bluetooth\"",
    "\"Network_Auth\"",
    "\"Bg_UI\"",
    "\"InterApp_Audio\"",
    "\"Bg_Resume\"",
    "\"Bg_Suspend\"",
    "\"Bg_Transient_Wakeup\"",
    "\"Bg_Periodic_Task\"",
    "\"Bg_Finish_Task_Unbounded\"",
    "\"Bg_Continuous\"",
    "\"Bg_Download\"",
    "\"Newsstand_Download\"",
    "\"Foreground\"",
    "\"ViewService\"",
    "\"Bg_Content_Fetch\"",
    "\"Notification_Handling\"",
    "\"Bg_Finish_Task_Aft_Bg_Content_Fetch\"",
    "\"Bg_Finish_Task_Aft_Bg_Download\"",
    "\"Bg_Finish_Task_Aft_Periodic_Task\"",
    "\"Finish_Task_Aft_Notification\"",
    "\"VoIP\"",
    "\"Extension\"",
    "\"Continuity\"",
};
static_assert(kAssertionNames.size() == 27);

// The index is the tag's value.
constexpr std::array kWiredTagNames = {
    "VM_KERN_MEMORY_NONE",          "VM_KERN_MEMORY_OSFMK",
    "VM_KERN_MEMORY_BSD",           "VM_KERN_MEMORY_DROVIK",
    "VM_KERN_MEMORY_LIBKERN",       "VM_KERN_MEMORY_OSKEXT",
    "VM_KERN_MEMORY_KEXT",          "VM_KERN_MEMORY_IPC",
    "VM_KERN_MEMORY_STACK",         "VM_KERN_MEMORY_CPU",
    "VM_KERN_MEMORY_PMAP",          "VM_KERN_MEMORY_PTE",
    "VM_KERN_MEMORY_ZONE",          "VM_KERN_MEMORY_KALLOC",
    "VM_KERN_MEMORY_COMPRESSOR",    "VM_KERN_MEMORY_COMPRESSED_DATA",
    "VM_KERN_MEMORY_PHANTOM_CACHE", "VM_KERN_MEMORY_WAITQ",
    "VM_KERN_MEMORY_DIAG",          "VM_KERN_MEMORY_LOG",
    "VM_KERN_MEMORY_FILE",          "VM_KERN_MEMORY_MBUF",
    "VM_KERN_MEMORY_UBC",           "VM_KERN_MEMORY_SECURITY",
    "VM_KERN_MEMORY_MLOCK",
};
static_assert(kWiredTagNames.size() == 25);
constexpr uint64_t kWiredTagAny = 255;

// The index is the counter's value.
constexpr std::array kWiredCounterNames = {
    "VM_KERN_COUNT_MANAGED",       "VM_KERN_COUNT_RESERVED", "VM_KERN_COUNT_WIRED",
    "VM_KERN_COUNT_WIRED_MANAGED", "VM_KERN_COUNT_STOLEN",   "VM_KERN_COUNT_LOPAGE",
    "VM_KERN_COUNT_MAP_KERNEL",    "VM_KERN_COUNT_MAP_ZONE", "VM_KERN_COUNT_MAP_KALLOC",
};
static_assert(kWiredCounterNames.size() == 9);

}  // namespace

std::string assertionName(unsigned bit) {
  return bit < kAssertionNames.size() ? kAssertionNames[bit]
                                      : formatted("\"UnknownAssertion_%d\"", static_cast<int>(bit));
}

std::string wiredTagName(uint64_t tag) {
  if (tag < kWiredTagNames.size()) return kWiredTagNames[tag];
  if (tag == kWiredTagAny) return "VM_KERN_MEMORY_ANY";
  return formatted("VM_KERN_MEMORY_%lld", static_cast<long long>(tag));
}

std::string wiredCounterName(uint64_t counter) {
  if (counter < kWiredCounterNames.size()) return kWiredCounterNames[counter];
  return formatted("VM_KERN_COUNT_%lld", static_cast<long long>(counter));
}

}  // namespace quorveld
