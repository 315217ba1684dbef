// The work of query_async done with gloox: the same options, without --payload, and the same figures.
#include <gloox/iq.h>
#include <gloox/iqhandler.h>
#include <gloox/stanzaextension.h>
#include <gloox/tag.h>

#include <algorithm>

#include "support/gloox_client.h"
#include "support/measure.h"

namespace {

constexpr int kExtension = gloox::ExtUser + 1;

// What stands in an IQ: gloox writes, and reads, content through such a class alone.
class GridExtension : public gloox::StanzaExtension {
 public:
  explicit GridExtension(gloox::Tag *tag = nullptr) : StanzaExtension(kExtension), tag_(tag) {}
  ~GridExtension() override { delete tag_; }
  GridExtension(const GridExtension &) = delete;
  GridExtension &operator=(const GridExtension &) = delete;

  const std::string &filterString() const override {
    static const std::string filter = "/iq/grid[@xmlns='quillon']";
    return filter;
  }
  gloox::StanzaExtension *newInstance(const gloox::Tag *tag) const override { return new GridExtension(tag->clone()); }
  gloox::Tag *tag() const override { return tag_->clone(); }
  gloox::StanzaExtension *clone() const override { return new GridExtension(tag_->clone()); }

 private:
  gloox::Tag *const tag_;
};

gloox::Tag *make_grid() {
  auto *const grid = new gloox::Tag("grid", "type", "request");
  grid->setXmlns("quillon");
  auto *const payload = new gloox::Tag(grid, "readValues");
  payload->setXmlns("urn:example:sensor");
  new gloox::Tag(payload, "name", std::string("boiler-3"));
  new gloox::Tag(payload, "count", std::string("25"));
  new gloox::Tag(payload, "unit", std::string("celsius"));
  return grid;
}

class Asker : private gloox::IqHandler {
 public:
  Asker(const bench::Arguments &arguments, const bench::Target &target)
      : client_(target),
        to_(target.peer_jid()),
        requests_(arguments.number("requests", 20000)),
        in_flight_(std::min(requests_, arguments.number("in-flight", 1))),
        trips_(requests_, in_flight_) {
    client_.client().registerStanzaExtension(new GridExtension);
  }

  void run() {
    client_.run([this] {
      span_ = bench::Span();
      while (sent_ < in_flight_) ask();
    });
    bench::print_requests(span_, requests_, trips_.microseconds());
  }

 private:
  void ask() {
    ++sent_;
    trips_.begin();
    gloox::IQ iq(gloox::IQ::Get, to_, client_.client().getID());
    iq.addExtension(new GridExtension(make_grid()));
    client_.client().send(iq, this, 0);
  }

  bool handleIq(const gloox::IQ &) override { return false; }
  void handleIqID(const gloox::IQ &iq, int) override {
    if (iq.findExtension(kExtension) == nullptr) bench::fail("the answer has no content");
    ++answered_;
    trips_.end();
    if (sent_ < requests_) return ask();
    if (answered_ == requests_) client_.stop();
  }

  bench::GlooxClient client_;
  const gloox::JID to_;
  const long requests_, in_flight_;
  long sent_ = 0, answered_ = 0;
  bench::RoundTrips trips_;
  bench::Span span_;
};

}  // namespace

int main(int argc, char **argv) {
  const bench::Arguments arguments(argc, argv);
  const bench::Target target(arguments);
  Asker(arguments, target).run();
}
