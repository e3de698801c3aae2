// TextSink.cpp - records as they stand, with the date in front.
#include "LocalTime.h"
#include "Sink.h"

namespace tovilog {
namespace {

class TextSink : public Sink {
public:
  TextSink(Output& out, bool labelWriters) : out_(out), labelWriters_(labelWriters) {}

  void Put(const Item& item) override {
    if (labelWriters_) {
      out_.Append("[");
      out_.Append(item.file->prefix);
      out_.Append("] ");
    }
    if (!item.isRecord) {
      out_.Append(FormatWall(item.when));
      out_.Append(" -- ");
      out_.Append(item.file->name);
      out_.Append(": ");
      out_.Append(item.text);
      return;
    }
    const int64_t day = DayOf(item.when);
    if (day != day_) {
      day_ = day;
      date_ = FormatDate(day) + " ";
    }
    out_.Append(date_);
    out_.Append(item.text);
  }

private:
  Output& out_;
  bool labelWriters_;
  int64_t day_ = kNoTime;
  std::string date_;
};

}  // namespace

std::unique_ptr<Sink> MakeTextSink(Output& out, bool labelWriters) {
  return std::make_unique<TextSink>(out, labelWriters);
}

}  // namespace tovilog
