// The documents that the bulk service answers with: made piece by piece as they are sent, never held whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace bulk {

// What is done to the answer on purpose.
enum class Failure {
  none,
  reset,      // the connection is reset
  truncate,   // the document breaks off, and the connection is closed in order
  malformed,  // an end tag that ends nothing
  silent      // nothing more comes, and the connection stays
};

struct Order {
  std::string result_set = "readings";
  uint64_t records = 0;
  size_t record_bytes = 600;  // with the line break behind it, if there is one
  unsigned delay_ms = 0;      // before the first byte
  Failure failure = Failure::none;
  uint64_t failure_after = 0;  // records
};

// Reads a request such as
//   <bulkRequest xmlns="http://quillon.internal/quillon" resultSet="readings" records="1000" recordSize="600"
//                delayMilliseconds="0" failure="reset" failureAfter="10"/>
// of which only records must be there. Result sets are "readings", flat records in one line each, and "reports", nested records
// written over several lines. On failure complaint tells what is wrong.
bool read_order(const std::string &xml, Order &order, std::string &complaint);

class Document {
 public:
  explicit Document(const Order &order);

  uint64_t length() const { return head_.size() + record_.size() * order_.records + tail_.size(); }

  // Writes the next bytes of the document to the place, which has room for piece_max() of them, and returns their number: 0 when
  // the document has ended, or come to its failure.
  size_t write(char *place);
  size_t piece_max() const { return batch_ * record_.size() + head_.size() + tail_.size(); }

  // The document has come to its failure.
  bool has_failed() const { return order_.failure != Failure::none && next_ == order_.failure_after; }

 private:
  const Order order_;
  std::string head_, record_, tail_;
  size_t number_at_ = 0;  // in record_: where the record's number is written
  size_t batch_ = 0;      // records in a piece
  uint64_t next_ = 0;     // the record that is next
  bool begun_ = false, ended_ = false;
};

}  // namespace bulk
