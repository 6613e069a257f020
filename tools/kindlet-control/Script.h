// The script language of kindlet-control: one command per line, turned into
// the bytes that go on the control and data channels.
#pragma once

#include <string>

namespace KindletControl {

struct Step {
  enum Kind {
    None,          // blank line or comment
    SendData,      // bytes for the data channel
    SendControl,   // bytes for the control channel
    Sleep,         // pause for `milliseconds`
    CloseData,
    CloseControl,
    ResetData,     // close with a reset instead of an orderly end
    ResetControl,
    Wait,          // wait for kindlet to end
    Stop,          // "stopLiveEditing", repeated until kindlet ends
  };
  Kind kind = None;
  std::string bytes;
  long milliseconds = 0;
};

// Parses one line; on a mistake returns false with a one-line reason.
//   update {json}       a data frame with the group given as JSON
//   command <text>      a 256-byte control record holding <text>
//   raw-data <hex>      bytes as they are (whitespace between digits allowed)
//   raw-control <hex>
//   sleep <ms>
//   close-data, close-control, reset-data, reset-control, wait, stop
//   # comment
bool parseLine(const std::string& line, Step& step, std::string& error);

// A data frame: the payload's length as 8 bytes, little-endian, then it.
std::string dataFrame(const std::string& payload);
// A control record: `text`, zero-padded to 256 bytes. Texts of 256 bytes or
// more are refused, since the record needs its terminator.
bool controlRecord(const std::string& text, std::string& record, std::string& error);

}  // namespace KindletControl
