// The controller's side of the image connections (ImageProtocol.h): which
// session each belongs to, the images it announced, and their passes handed
// to a consumer.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ImageMapping.h"
#include "LiveRendering/ImageProtocol.h"

namespace KindletControl {

using ImageSource = Morrigo::Selvane::LiveRendering::ImageHello;
using ImageOpen = Morrigo::Selvane::LiveRendering::ImageOpen;
using ImagePass = Morrigo::Selvane::LiveRendering::ImagePass;

// What the controlling application does with the images.
class ImageConsumer {
 public:
  virtual ~ImageConsumer() = default;
  // The names of the images to ask each render for ("*": all).
  virtual std::vector<std::string> wanted() const { return {"*"}; }
  // A pass of `image`: `pixels` (image.pixelBytes() bytes) are valid during
  // the call only. Passes of one image come in the order they were made.
  virtual void pass(const ImageSource& source, const ImageOpen& image, const ImagePass& pass,
                    const unsigned char* pixels) = 0;
  virtual void closed(const ImageSource& /*source*/, const ImageOpen& /*image*/) {}
};

class ImageReceiver {
 public:
  explicit ImageReceiver(ImageConsumer& consumer) : consumer(consumer) {}

  // Handles one message from the image connection `identity`. Returns the
  // answer to send back on it ("" for none); a bad message gives one line on
  // standard error and is dropped.
  std::string handle(const std::string& identity, const std::string& message);
  // The session of `pid` named `sessionName` has ended: its images go.
  void forget(long pid, const std::string& sessionName);

  // Images whose passes the controller takes from their regions itself
  // (a client on this machine): the doorbells to wait on between calls of
  // takePasses.
  std::vector<int> doorbells() const;
  // Hands the newest pass of each such image to the consumer, if it has not
  // had it, then asks to be woken at the next. False when a pass came
  // meanwhile: call again before sleeping.
  bool takePasses();
  ImageConsumer& imageConsumer() { return consumer; }
  // Called before the first pass of each image connection reaches the consumer.
  void onFirstPass(std::function<void(const ImageSource&)> call) { firstPass = std::move(call); }

 private:
  struct Image {
    ImageOpen open;
    std::unique_ptr<ImageMapping> mapping;  // none: pixels come inline
    bool broken = false;                    // its region's header lied once: no more passes
  };
  struct Channel {
    ImageSource source;
    std::map<uint32_t, Image> images;
    std::unique_ptr<ImageDoorbell> doorbell;  // for images whose passes we take
    bool passSeen = false;
  };
  void deliver(Channel& channel, const ImageOpen& image, const ImagePass& pass,
               const unsigned char* pixels);
  void closeAll(Channel& channel);
  void dropped(const Channel* channel, const std::string& why) const;

  ImageConsumer& consumer;
  std::function<void(const ImageSource&)> firstPass;
  std::map<std::string, Channel> channels;  // by the routing socket's identity
};

}  // namespace KindletControl
