#include "KINDLET/src/LiveSession.h"

#include <cstdio>

#include "KINDLET/src/KindletLog.h"

std::string liveSessionName(size_t fileIndex) {
  char text[48];
  snprintf(text, sizeof text, "LiveRenderSession_%lu", static_cast<unsigned long>(fileIndex));
  return text;
}

void startLiveSession(size_t fileIndex, const std::string& renderMethodType) {
  const std::string sessionName = liveSessionName(fileIndex);
  if (renderMethodType != "liveRender") return;
  if (kindletLog().warnEnabled()) {
    kindletLog().warn("No live-render client is available for session " + sessionName +
                          ": set SELVANE_DISABLE_PREVANE_PLUS=1 and give -host, -portControl "
                          "and -portData to feed a live render over TCP.",
                      "KINDLET/src/LiveSession", __LINE__);
  }
}
