#include "driver/allocation_list.h"

#include "platform/tags.h"

namespace uvc {

void AllocationList::Initialise() {
    ExInitializePagedLookasideList(&nodes_, nullptr, nullptr, 0, sizeof(Node), pool_tag::AllocationNode, 0);
    head_ = nullptr;
}

NTSTATUS AllocationList::Track(void *block) {
    auto *node = static_cast<Node *>(ExAllocateFromPagedLookasideList(&nodes_));
    if (node == nullptr) {
        ExFreePool(block);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    node->next = head_;
    node->block = block;
    head_ = node;
    return STATUS_SUCCESS;
}

void *AllocationList::UntrackOne() {
    Node *node = head_;
    if (node == nullptr)
        return nullptr;
    head_ = node->next;
    void *block = node->block;
    ExFreeToPagedLookasideList(&nodes_, node);
    return block;
}

void AllocationList::FreeBlocks() {
    while (void *block = UntrackOne())
        ExFreePool(block);
}

void AllocationList::Delete() {
    ExDeletePagedLookasideList(&nodes_);
}

} // namespace uvc
