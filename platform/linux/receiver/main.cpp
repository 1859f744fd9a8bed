#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

#include "platform/linux/receiver/confinement.h"
#include "platform/linux/receiver/receiver.h"

int main(int argc, char** argv) {
  using namespace quorveld::linux_platform;
  void* const page =
      mmap(nullptr, sizeof(ReceiverPage), PROT_READ | PROT_WRITE, MAP_SHARED, kReceiverPageFd, 0);
  if (argc != 2 || page == MAP_FAILED) {
    std::fputs("quorveld-receiver: started by quorveld alone\n", stderr);
    return 2;
  }
  close(kReceiverPageFd);
  Receiver receiver(kReceiverChannel, *static_cast<ReceiverPage*>(page), kReceiverTimer, argv[1]);
  confineReceiver();
  receiver.run();
}
