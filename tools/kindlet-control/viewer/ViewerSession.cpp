#include "ViewerSession.h"

#include <cstring>

#include <boost/asio/post.hpp>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "LiveRendering/LiveRenderProtocol.h"
#include "ViewerSave.h"
#include "ViewerServer.h"
#include "XoScenegraph/AttributeJson.h"

namespace KindletControl {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
namespace protocol = Morrigo::Selvane::LiveRendering;

namespace {

// Texts waiting for a browser that does not read: past this it is dropped.
const size_t kTextBacklog = 512;

std::string quoted(const std::string& text) {
  rapidjson::StringBuffer out;
  rapidjson::Writer<rapidjson::StringBuffer> writer(out);
  writer.String(text.c_str(), rapidjson::SizeType(text.size()));
  return out.GetString();
}

std::string errorText(const std::string& why) {
  return "{\"type\":\"error\",\"message\":" + quoted(why) + "}";
}

}  // namespace

ViewerSession::ViewerSession(net::ip::tcp::socket socket, ViewerServer& server)
    : ws(std::move(socket)), server(server), refineTimer(ws.get_executor()) {}

void ViewerSession::run(http::request<http::string_body> request) {
  ws.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
  ws.read_message_max(kMessageLimit);
  ws.async_accept(request, beast::bind_front_handler(&ViewerSession::onAccept, shared_from_this()));
}

void ViewerSession::onAccept(beast::error_code error) {
  if (error) return;
  server.add(shared_from_this());
  sendText(server.renders());
  watch(server.anyKey());
  read();
}

void ViewerSession::read() {
  ws.async_read(buffer, beast::bind_front_handler(&ViewerSession::onRead, shared_from_this()));
}

void ViewerSession::onRead(beast::error_code error, size_t) {
  if (error) {
    closed = true;  // gone, or a message over the limit (the WebSocket closes with 1009)
    return;
  }
  if (!ws.got_text()) {
    this->error("binary messages are not understood");
  } else {
    handle(beast::buffers_to_string(buffer.data()));
  }
  buffer.consume(buffer.size());
  read();
}

void ViewerSession::error(const std::string& why) { sendText(errorText(why)); }

std::function<void(const std::string&)> ViewerSession::answerLater() {
  std::weak_ptr<ViewerSession> self = shared_from_this();
  auto executor = ws.get_executor();
  return [self, executor](const std::string& text) {
    net::post(executor, [self, text] {
      if (auto session = self.lock()) session->sendText(text);
    });
  };
}

void ViewerSession::handle(const std::string& text) {
  rapidjson::Document message;
  message.Parse(text.c_str(), text.size());
  if (message.HasParseError() || !message.IsObject() || !message.HasMember("type") ||
      !message["type"].IsString()) {
    error("a message must be a JSON object with a \"type\"");
    return;
  }
  const std::string type = message["type"].GetString();
  ViewerEdit edit;
  if (message.HasMember("render") && !message["render"].IsNull()) {
    if (!message["render"].IsInt()) {
      error("\"render\" must be a sequence ID");
      return;
    }
    edit.hasTarget = true;
    edit.target = message["render"].GetInt();
  }
  if (type == "watch") {
    if (!message.HasMember("key") || !message["key"].IsString()) {
      error("watch: \"key\" must be \"<sequenceID>/<image>\"");
      return;
    }
    watch(message["key"].GetString());
    return;
  }
  if (type == "update") {
    const int id = message.HasMember("id") && message["id"].IsInt() ? message["id"].GetInt() : 0;
    if (!message.HasMember("update") || !message["update"].IsObject()) {
      error("update: \"update\" must be an object");
      return;
    }
    rapidjson::StringBuffer json;
    rapidjson::Writer<rapidjson::StringBuffer> writer(json);
    message["update"].Accept(writer);
    std::string reason;
    const auto attribute = Arbolite3::internal::attributeFromJsonText(json.GetString(), &reason);
    if (!attribute.isValid()) {
      error("update: " + reason);
      return;
    }
    edit.message = protocol::encodeUpdate(attribute.getBinary());
    // Edits of one thing (the camera, a light) replace each other while they wait.
    if (message.HasMember("coalesce") && message["coalesce"].IsString())
      edit.coalesceKey = std::string(message["coalesce"].GetString()) + "@" +
                         (edit.hasTarget ? std::to_string(edit.target) : "*");
    auto answer = answerLater();
    edit.done = [answer, id](const std::map<long, uint64_t>& states) {
      std::string text = "{\"type\":\"sent\",\"id\":" + std::to_string(id) + ",\"states\":{";
      bool first = true;
      for (auto& state : states) {
        text += (first ? "\"" : ",\"") + std::to_string(state.first) + "\":" + std::to_string(state.second);
        first = false;
      }
      answer(text + "}}");
    };
    server.viewerHub().push(std::move(edit));
    return;
  }
  if (type == "refine") {
    if (!message.HasMember("paused") || !message["paused"].IsBool()) {
      error("refine: \"paused\" must be true or false");
      return;
    }
    edit.isUpdate = false;
    edit.message = protocol::encodeCommand(message["paused"].GetBool() ? "pauseRefinement"
                                                                        : "resumeRefinement");
    server.viewerHub().push(std::move(edit));
    return;
  }
  if (type == "save") {
    const std::string format =
        message.HasMember("format") && message["format"].IsString() ? message["format"].GetString() : "";
    if (format != "exr" && format != "png") {
      error("save: \"format\" must be \"exr\" or \"png\"");
      return;
    }
    const double exposure =
        message.HasMember("exposure") && message["exposure"].IsNumber() ? message["exposure"].GetDouble() : 0;
    const Frame frame = server.latest(watched);
    std::string why;
    const std::string path =
        frame ? saveFrame(*frame, server.viewerOptions().saveDirectory, format == "png", exposure, why) : "";
    if (path.empty()) {
      error("save: " + (frame ? why : std::string("no image yet")));
      return;
    }
    sendText("{\"type\":\"saved\",\"path\":" + quoted(path) + "}");
    return;
  }
  if (type == "stop") {
    server.viewerHub().requestStop();
    sendText("{\"type\":\"stopping\"}");
    return;
  }
  error("unknown message type " + quoted(type));
}

void ViewerSession::watch(const std::string& key) {
  watched = key;
  waitingFrame = server.latest(key);
  write();
}

void ViewerSession::offer(const std::string& key, const Frame& frame) {
  if (watched.empty()) watched = key;
  if (key != watched) return;
  waitingFrame = frame;
  write();
}

void ViewerSession::sendText(std::string text) {
  if (closed) return;
  if (texts.size() >= kTextBacklog) {
    closed = true;  // a page that reads nothing: let it go
    beast::error_code ignored;
    beast::get_lowest_layer(ws).socket().close(ignored);
    return;
  }
  texts.push_back(std::make_shared<const std::string>(std::move(text)));
  write();
}

void ViewerSession::write() {
  if (writing || closed) return;
  bool binary = false;
  if (!texts.empty()) {
    writing = std::move(texts.front());
    texts.pop_front();
  } else if (waitingFrame) {
    double state = -1;
    if (waitingFrame->size() >= 56) std::memcpy(&state, waitingFrame->data() + 48, sizeof state);
    const auto now = std::chrono::steady_clock::now();
    if (state == lastState && now < lastFrameSent + kRefineInterval) {
      if (!timerArmed) {
        timerArmed = true;
        refineTimer.expires_at(lastFrameSent + kRefineInterval);
        refineTimer.async_wait([self = shared_from_this()](beast::error_code) {
          self->timerArmed = false;
          self->write();
        });
      }
      return;
    }
    lastState = state;
    lastFrameSent = now;
    writing = std::move(waitingFrame);
    waitingFrame.reset();
    binary = true;
  } else {
    return;
  }
  ws.binary(binary);
  ws.async_write(net::buffer(*writing),
                 beast::bind_front_handler(&ViewerSession::onWrite, shared_from_this()));
}

void ViewerSession::onWrite(beast::error_code error, size_t) {
  writing.reset();
  if (error) {
    closed = true;
    return;
  }
  write();
}

}  // namespace KindletControl
