#pragma once

#include <optional>
#include <string>

#include "schema/ContentDigester.h"
#include "schema/ValueBounds.h"

namespace kyr::parquet {

/// What is known of the rows of a content without looking at them.
struct ContentSummary {
  std::string digest;             ///< as ContentDigester makes it; empty if nothing is known
  std::optional<double> minimum;  ///< this and the next as ValueBounds finds them
  std::optional<double> maximum;
};

/// Makes the summary of rows that come piece by piece.
class ContentSummarizer {
 public:
  /// The arguments are those of ContentDigester.
  explicit ContentSummarizer(const SampleSchema& schema, bool hasTimes = false)
      : digester_(schema, hasTimes), bounds_(schema) {}

  void add(const RowSlice& rows, const double* times = nullptr,
           const std::optional<XXH128_hash_t>& known = std::nullopt) {
    digester_.add(rows, times, known);
    bounds_.add(rows);
  }

  void addLast(const RowSlice& rows, const std::optional<XXH128_hash_t>& known = std::nullopt) {
    digester_.addLast(rows, known);
    bounds_.add(rows);
  }

  ContentSummary summary() const {
    return {digester_.digest(), bounds_.minimum(), bounds_.maximum()};
  }

 private:
  ContentDigester digester_;
  ValueBounds bounds_;
};

/// The summary of rows that are all of a content.
inline ContentSummary summaryOf(const SampleSchema& schema, const RowSlice& rows) {
  ContentSummarizer summarizer(schema);
  summarizer.addLast(rows);
  return summarizer.summary();
}

}  // namespace kyr::parquet
