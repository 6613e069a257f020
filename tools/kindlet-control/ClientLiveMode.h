// kindlet-control on the live-render client transport: serves the service
// registry, can start one or several kindlets that register with it, and
// sends them what the script says.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace KindletControl {

struct ClientLiveOptions {
  unsigned short registryPort = 0;  // 0: a free one
  int renders = 1;                  // kindlets to start; several get -sequenceID 1..N
  // One view on this many kindlets (0: off): started ones get their share of
  // the samples (-sampleOffset k -sampleStride N), every update goes to all and
  // to those that register later, and their images are merged (merge/ImageMerge.h).
  int kindlets = 0;
  bool slurm = false;  // submit the kindlets as a Slurm array job instead of starting them
  bool start = false;
  std::string kindlet;              // empty: the one beside this program
  double connectTimeout = 60;       // for the registrations
  double timeout = 0;               // for kindlet's end once the script waits; 0: none
  std::string imagesDirectory;      // write the renders' images there; empty: ask for none
  bool view = false;                // serve the browser viewer (viewer/Viewer.h)
  std::string viewAddress = "127.0.0.1";
  unsigned short viewPort = 0;
  std::string viewSaveDirectory = ".";  // where the page's "save" writes
  size_t backlogLimit = size_t(256) << 20;  // bytes a session may fall behind
  size_t maxSessions = 128;                 // registrations served at once
  size_t maxSessionsPerConnection = 1;
  int64_t maxMessageBytes = int64_t(2) << 30;  // the largest message from a client
  std::vector<std::string> kindletOptions;
};

// Runs the whole session; returns the exit status of kindlet-control.
int runClientLiveMode(const ClientLiveOptions& options, std::istream& script);

}  // namespace KindletControl
