#include "stanzas.h"

#include "measure.h"

namespace bench {

namespace {

constexpr char kRequest[] =
    "<readValues xmlns='urn:example:sensor'><name>boiler-3</name><count>25</count><unit>celsius</unit></readValues>";

std::string make_iq() {
  return "<iq type='get' id='qlk-7f3a91c2-41' from='sensor@grid.quillon.internal/qlk' to='reader@grid.quillon.internal/qlk'>"
         "<grid xmlns='quillon' type='request'>" +
         std::string(kRequest) + "</grid></iq>";
}

constexpr char kEvent[] =
    "<message from='pubsub.grid.quillon.internal' to='reader@grid.quillon.internal/qlk' type='headline' id='e7a2b9d0'>"
    "<event xmlns='http://jabber.org/protocol/pubsub#event'><items node='urn:example:sensor/SensorCapability'>"
    "<item id='5c4d7e8f9a0b' publisher='sensor@grid.quillon.internal'><grid xmlns='quillon' type='notification'>"
    "<valueChanged xmlns='urn:example:sensor' xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' xsi:type='Reading'>"
    "<name>boiler-3</name><value unit='celsius'>81.25</value><time>2024-03-01T12:30:45Z</time><quality>good</quality>"
    "<note>above the &lt;upper&gt; limit</note></valueChanged></grid></item></items></event></message>";

std::string make_history() {
  std::string xml =
      "<iq type='result' id='qlk-7f3a91c2-42' from='sensor@grid.quillon.internal/qlk' to='reader@grid.quillon.internal/qlk'>"
      "<grid xmlns='quillon' type='response'><history xmlns='urn:example:sensor'>";
  for (int i = 0; i < 99; ++i) {
    const std::string number = std::to_string(1000 + i);
    xml += "<reading id='" + number + "' sensor='boiler-3' unit='celsius'><value>81." + number +
           "</value></reading>\n  some text that goes with this reading, of a moderate length, about the plant\n";
  }
  return xml + "</history></grid></iq>";
}

std::string make_items() {
  std::string xml;
  for (int i = 0; i < 27; ++i) {
    const std::string head = "<reading id='" + std::to_string(100000000000 + i) +
                             "' unit='celsius'><sensor>boiler-3</sensor><time>2024-03-01T12:30:45Z</time><value>81.5</value>"
                             "<quality>good</quality><note>";
    const std::string tail = "</note></reading>";
    xml += head + std::string(600 - head.size() - tail.size(), 'n') + tail;
  }
  return xml;
}

}  // namespace

const char kStreamHead[] =
    "<?xml version='1.0'?><stream:stream xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams' id='4f1d' "
    "from='grid.quillon.internal' version='1.0' xml:lang='en'>";

std::string make_stanza(const std::string &name) {
  if (name == "iq") return make_iq();
  if (name == "event") return kEvent;
  if (name == "payload") return make_history();
  if (name == "items") return make_items();
  fail("no stanza is called " + name);
}

std::string make_request_payload(size_t bytes) {
  if (bytes == 0) return kRequest;
  const std::string head = "<values xmlns='urn:example:sensor'>", tail = "</values>";
  const std::string item = "<value>" + std::string(85, '8') + "</value>";
  std::string payload = head;
  while (payload.size() + item.size() + tail.size() <= bytes) payload += item;
  return payload + tail;
}

}  // namespace bench
