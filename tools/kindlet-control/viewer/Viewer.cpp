#include "Viewer.h"

#include <csignal>
#include <cstdlib>

namespace KindletControl {

namespace {

volatile std::sig_atomic_t signalled = 0;

void onSignal(int) { signalled = 1; }

}  // namespace

bool parseViewAddress(const std::string& text, std::string& address, unsigned short& port) {
  const size_t colon = text.rfind(':');
  std::string number = text;
  address = "127.0.0.1";
  if (colon != std::string::npos) {
    address = text.substr(0, colon);
    number = text.substr(colon + 1);
    if (address.size() > 2 && address.front() == '[' && address.back() == ']')
      address = address.substr(1, address.size() - 2);
    if (address.empty()) return false;
  }
  char* rest = nullptr;
  const long value = std::strtol(number.c_str(), &rest, 10);
  if (number.empty() || *rest != '\0' || value < 0 || value > 65535) return false;
  port = static_cast<unsigned short>(value);
  return true;
}

Viewer::Viewer(ViewerOptions options, ImageConsumer* also)
    : bridge(hub, also), server(hub, std::move(options)) {}

Viewer::~Viewer() {
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
}

std::unique_ptr<Viewer> Viewer::open(ViewerOptions options, ImageConsumer* also, std::string& error) {
  std::unique_ptr<Viewer> viewer(new Viewer(std::move(options), also));
  if (!viewer->server.start(error)) return nullptr;
  struct sigaction action = {};
  action.sa_handler = onSignal;  // no SA_RESTART: the registry's poll returns at once
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  return viewer;
}

bool Viewer::ended() const { return signalled != 0 || hub.stopRequested(); }

}  // namespace KindletControl
