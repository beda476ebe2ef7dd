// Page tables of a store's arrays.
#pragma once

#include <vector>

#include "stored_array.h"

namespace tslb_durable {

// Makes huge pages of the memory that blocks of the arrays fill, where the kernel can (Linux 6.1), so that a fork copies
// one entry of the page table instead of 512. Threads may use the arrays meanwhile.
void use_huge_pages(const std::vector<Array> &arrays);

}  // namespace tslb_durable
