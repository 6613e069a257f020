#include "ImageReceiver.h"

#include <iostream>

namespace KindletControl {

namespace protocol = Morrigo::Selvane::LiveRendering;

std::string ImageReceiver::handle(const std::string& identity, const std::string& message) {
  const unsigned kind = message.empty() ? 0 : static_cast<unsigned char>(message[0]);
  std::string error;
  auto found = channels.find(identity);
  Channel* channel = found == channels.end() ? nullptr : &found->second;
  if (kind == protocol::kImageHello) {
    ImageSource source;
    if (!protocol::decodeImageHello(message.data(), message.size(), source, error)) {
      dropped(channel, error);
      return "";
    }
    // The same session's earlier connection is gone.
    forget(source.pid, source.sessionName);
    channels[identity].source = source;
    return "";
  }
  if (channel == nullptr) {
    dropped(nullptr, "an image message before the connection's hello");
    return "";
  }
  if (kind == protocol::kImageOpen) {
    ImageOpen open;
    if (!protocol::decodeImageOpen(message.data(), message.size(), open, error)) {
      dropped(channel, error);
      return "";
    }
    Image image{open, nullptr};
    const bool taken = !open.doorbell.empty();
    if (!open.region.empty() &&
        !(image.mapping = ImageMapping::map(open.region, channel->source.pid, open.slotBytes,
                                            taken, error))) {
      dropped(channel, error);
      return "";
    }
    if (taken && (!channel->doorbell || channel->doorbell->path() != open.doorbell)) {
      std::unique_ptr<ImageDoorbell> doorbell =
          ImageDoorbell::open(open.doorbell, channel->source.pid, error);
      if (!doorbell) {
        dropped(channel, error);
        return "";
      }
      channel->doorbell = std::move(doorbell);
    }
    auto& images = channel->images;
    if (images.count(open.image)) consumer.closed(channel->source, images[open.image].open);
    images[open.image] = std::move(image);
    return "";
  }
  if (kind == protocol::kImagePass) {
    ImagePass pass;
    if (!protocol::decodeImagePass(message.data(), message.size(), pass, error)) {
      dropped(channel, error);
      return "";
    }
    auto image = channel->images.find(pass.image);
    if (image == channel->images.end()) {
      dropped(channel, "a pass of image " + std::to_string(pass.image) + ", which is not open");
      return "";
    }
    const ImageOpen& open = image->second.open;
    const unsigned char* pixels = pass.pixels;
    if (pass.slot == protocol::kInlinePixels) {
      if (pass.inlineBytes != open.pixelBytes() || image->second.mapping) {
        dropped(channel, "a pass of image " + open.name + " with " +
                             std::to_string(pass.inlineBytes) + " bytes of pixels instead of " +
                             std::to_string(image->second.mapping ? 0 : open.pixelBytes()));
        return "";
      }
    } else if (!image->second.mapping || image->second.mapping->header()) {
      dropped(channel, "a pass of image " + open.name + (image->second.mapping
                                                              ? " whose passes the controller takes"
                                                              : " in a region it has not got"));
      return "";
    } else {
      pixels = image->second.mapping->data() + pass.slot * open.slotBytes;
    }
    deliver(*channel, open, pass, pixels);
    return protocol::encodeImageDone(pass.image, pass.pass);
  }
  if (kind == protocol::kImageClose) {
    uint32_t id = 0;
    if (!protocol::decodeImageClose(message.data(), message.size(), id, error)) {
      dropped(channel, error);
      return "";
    }
    auto image = channel->images.find(id);
    if (image != channel->images.end()) {
      consumer.closed(channel->source, image->second.open);
      channel->images.erase(image);
    }
    return "";
  }
  dropped(channel, "a message of unknown kind " + std::to_string(kind));
  return "";
}

std::vector<int> ImageReceiver::doorbells() const {
  std::vector<int> fds;
  for (const auto& channel : channels)
    if (channel.second.doorbell) fds.push_back(channel.second.doorbell->fd());
  return fds;
}

bool ImageReceiver::takePasses() {
  bool asleep = true;
  for (auto& entry : channels) {
    Channel& channel = entry.second;
    if (!channel.doorbell) continue;
    channel.doorbell->drain();
    for (auto& item : channel.images) {
      Image& image = item.second;
      XoImageOut::RegionHeader* header = image.mapping ? image.mapping->header() : nullptr;
      if (header == nullptr || image.broken) continue;
      XoImageOut::RegionReader reader(header);
      unsigned slot;
      XoImageOut::RegionSlotTags tags;
      const char* error;
      if (reader.take(slot, tags, error)) {
        ImagePass pass;
        pass.image = item.first;
        pass.slot = slot;
        pass.pass = tags.pass;
        pass.samples = tags.samples;
        pass.sceneState = tags.sceneState;
        deliver(channel, image.open, pass, image.mapping->data() + slot * image.open.slotBytes);
      } else if (error != nullptr) {
        image.broken = true;
        dropped(&channel, "the region of image " + image.open.name + " " + error);
        continue;
      }
      if (!reader.sleep()) asleep = false;
    }
  }
  return asleep;
}

void ImageReceiver::deliver(Channel& channel, const ImageOpen& image, const ImagePass& pass,
                            const unsigned char* pixels) {
  if (!channel.passSeen && firstPass) firstPass(channel.source);
  channel.passSeen = true;
  consumer.pass(channel.source, image, pass, pixels);
}

void ImageReceiver::closeAll(Channel& channel) {
  for (auto& image : channel.images) consumer.closed(channel.source, image.second.open);
  channel.images.clear();
}

void ImageReceiver::forget(long pid, const std::string& sessionName) {
  for (auto it = channels.begin(); it != channels.end();) {
    if (it->second.source.pid == pid && it->second.source.sessionName == sessionName) {
      closeAll(it->second);
      it = channels.erase(it);
    } else {
      ++it;
    }
  }
}

void ImageReceiver::dropped(const Channel* channel, const std::string& why) const {
  std::cerr << "kindlet-control: dropped an image message";
  if (channel != nullptr)
    std::cerr << " of session " << channel->source.sessionName << " pid " << channel->source.pid;
  std::cerr << ": " << why << std::endl;
}

}  // namespace KindletControl
