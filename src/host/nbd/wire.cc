// SPDX-License-Identifier: GPL-2.0-only
#include "host/nbd/wire.h"

#include <cerrno>

namespace zorv::nbd {

error error_of(int negative_errno) {
  switch (-negative_errno) {
    case 0:
      return ok;
    case EPERM:
    case EACCES:
    case EROFS:
      return eperm;
    case ENOMEM:
      return enomem;
    case EINVAL:
      return einval;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return enospc;
    case ESHUTDOWN:
      return eshutdown;
    default:
      return eio;
  }
}

const char* error_text(error e) {
  switch (e) {
    case eperm:
      return "the export is read-only";
    case enomem:
      return "the server is short of memory";
    case einval:
      return "the request is not valid for this export";
    case enospc:
      return "beyond the end of the export, or no space left behind it";
    case enotsup:
      return "zeroes are written no faster than other data";
    case eshutdown:
      return "the server is shutting down";
    default:
      return "the disk reported an error";
  }
}

}  // namespace zorv::nbd
