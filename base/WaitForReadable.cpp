#include "base/WaitForReadable.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>
#include <vector>

#include <boost/chrono.hpp>

#include "base/SystemError.h"

namespace Arbolite3 {
namespace Base {

int waitForReadable(const int* descriptors, int count, int timeoutMilliseconds,
                    boost::system::error_code* error) {
  clearError(error);
  std::vector<pollfd> entries(count > 0 ? count : 0);
  for (int i = 0; i < count; ++i) entries[i] = pollfd{descriptors[i], POLLIN, 0};
  for (int i = 1; i < count; ++i) std::swap(entries[i], entries[std::rand() % (i + 1)]);

  int result;
  if (timeoutMilliseconds < 1) {
    do {
      result = ::poll(entries.data(), entries.size(), timeoutMilliseconds);
    } while (result < 0 && errno == EINTR);
  } else {
    using Clock = boost::chrono::steady_clock;
    const Clock::time_point deadline =
        Clock::now() + boost::chrono::milliseconds(timeoutMilliseconds);
    int timeout = timeoutMilliseconds;
    for (;;) {
      result = ::poll(entries.data(), entries.size(), timeout);
      if (result >= 0 || errno != EINTR) break;
      const auto left =
          boost::chrono::duration_cast<boost::chrono::milliseconds>(deadline - Clock::now());
      timeout = static_cast<int>(std::max<boost::chrono::milliseconds::rep>(left.count(), 0));
    }
  }

  if (result < 0) {
    storeErrno(error);
    return -1;
  }
  if (result == 0) {
    if (error) error->assign(ETIMEDOUT, boost::system::generic_category());
    return -1;
  }
  for (const pollfd& entry : entries)
    if (entry.revents & (POLLIN | POLLERR | POLLHUP | POLLNVAL)) return entry.fd;
  return -1;
}

}  // namespace Base
}  // namespace Arbolite3
