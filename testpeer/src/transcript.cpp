#include <qlk/testpeer/connection.hpp>

namespace testpeer {

unsigned Transcript::flights() const {
  unsigned sum = 0;
  for (const auto &[stage, record] : stages) sum += record.flights;
  return sum;
}

const StageRecord &Transcript::at(Stage stage) const {
  static const StageRecord nothing;
  const auto found = stages.find(stage);
  return found == stages.end() ? nothing : found->second;
}

}  // namespace testpeer
