// SPDX-License-Identifier: GPL-2.0-only
// The control device: seventeen commands, decoded by number.
#pragma once

#include "driver/core/types.h"
#include "kernel/chrdev.h"

namespace zorv {

[[nodiscard]] int zorv_char_init();  // 0 | the registration's error
int zorv_char_destroy();             // 0
int zorv_char_ioctl(kernel::inode* inode, kernel::file* file, u32 command,
                    kernel::user_addr argument);

}  // namespace zorv
