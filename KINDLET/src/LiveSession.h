// The live-render session of one Op tree file when the feed is the
// live-render client (SELVANE_DISABLE_PREVANE_PLUS is not "1").
#pragma once

#include <cstddef>
#include <string>

// "LiveRenderSession_" followed by the 1-based file index.
std::string liveSessionName(size_t fileIndex);

// The session step for file `fileIndex`. The session name is always formed;
// only "liveRender" wants a client.
//
// The live-render client library (a LiveRenderClient per file, the previous
// one deleted after the new one is made, its update and command callbacks
// bound to the Manager's processLiveRenderUpdate and processControlCommand
// through copies of the Manager's shared_ptr, then initializeSession) is not
// part of this build yet. Until it is, a live render on this path has no feed
// and waits for an outside end; a warning says so.
void startLiveSession(size_t fileIndex, const std::string& renderMethodType);
