// A live-render control command as it travels on the control channel: a text
// of up to 256 bytes, zero-padded; a text of 256 bytes or more fills the
// record and has no terminator.
#pragma once

struct ControlCommandRecord {
  char text[256];
};

static_assert(sizeof(ControlCommandRecord) == 256, "control records are 256 bytes");
