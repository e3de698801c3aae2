// JsonSink.cpp - one JSON object per item, ready for jq or a log store.
// Log text is bytes: what is not valid UTF-8 becomes U+FFFD.
#include <nlohmann/json.hpp>

#include "Level.h"
#include "LocalTime.h"
#include "Sink.h"

namespace tovilog {
namespace {

// Without the last line end.
std::string Chomp(std::string_view text) {
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  return std::string(text);
}

class JsonSink : public Sink {
public:
  explicit JsonSink(Output& out) : out_(out) {}

  void Put(const Item& item) override {
    // The objects are kept from item to item, so that only their values
    // change: building the keys anew for every record costs more than the
    // rest of the reading.
    nlohmann::ordered_json& j = item.isRecord ? record_ : event_;
    j["time"] = FormatIso(item.when);
    j["writer"] = item.file->prefix;
    j["file"] = item.file->name;
    if (item.isRecord) {
      j["thread"] = item.Thread();
      j["module"] = item.Module();
      j["level"] = LevelName(item.level);
      j["text"] = Chomp(item.Message());
      if (item.asnLine != std::string::npos) {
        j["asn"] = Chomp(item.Asn());
      } else {
        j.erase("asn");
      }
    } else {
      j["event"] = EventName(item.event);
      j["text"] = Chomp(item.text);
      if (item.event == EventKind::kCrash) {
        // The first line names the signal; the frames follow, one a line.
        const std::string text = Chomp(item.text);
        nlohmann::ordered_json frames = nlohmann::ordered_json::array();
        for (std::size_t at = text.find('\n'); at != std::string::npos;) {
          const std::size_t end = text.find('\n', at + 1);
          frames.push_back(text.substr(at + 1, end == std::string::npos ? end : end - at - 1));
          at = end;
        }
        j["frames"] = frames;
      } else {
        j.erase("frames");
      }
    }
    out_.Append(j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    out_.Append("\n");
  }

private:
  Output& out_;
  nlohmann::ordered_json record_;
  nlohmann::ordered_json event_;
};

}  // namespace

std::unique_ptr<Sink> MakeJsonSink(Output& out) { return std::make_unique<JsonSink>(out); }

}  // namespace tovilog
