// Pool blocks that live as long as a device: its descriptor copies. Newest first.
#pragma once

#include "platform/platform.h"

namespace uvc {

class AllocationList {
  public:
    // The nodes come from a paged lookaside list. IRQL: PASSIVE_LEVEL.
    void Initialise();

    // Takes `block` over. When no node can be had the block is freed at once and the result is
    // STATUS_INSUFFICIENT_RESOURCES. IRQL: <= APC_LEVEL.
    NTSTATUS Track(void *block);

    // Gives the newest block back to the caller; null when there is none. IRQL: <= APC_LEVEL.
    void *UntrackOne();

    // Frees every block. IRQL: <= APC_LEVEL.
    void FreeBlocks();

    // Ends an empty list. IRQL: PASSIVE_LEVEL.
    void Delete();

  private:
    struct Node {
        Node *next;
        void *block;
    };

    Node *head_;
    PAGED_LOOKASIDE_LIST nodes_;
};

} // namespace uvc
