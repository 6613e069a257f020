#include "base/SystemError.h"

#include <cerrno>

#include <boost/system/system_error.hpp>

namespace Arbolite3 {
namespace Base {

void clearError(boost::system::error_code* error) {
  if (error) error->clear();
}

void storeErrno(boost::system::error_code* error) {
  if (error) error->assign(errno, boost::system::system_category());
}

void throwErrno() {
  throw boost::system::system_error(errno, boost::system::system_category());
}

}  // namespace Base
}  // namespace Arbolite3
