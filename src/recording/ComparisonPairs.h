#pragma once

#include <vector>

#include "kyr/recording/Comparison.h"

namespace kyr::recording {

/// A signal of the reference and its counterpart; one of them is null if only the other one exists.
struct SignalPair {
  const SignalInfo* reference = nullptr;
  const SignalInfo* other = nullptr;
};

/// The signals that \p options ask for, those of the reference first, by their ids.
/// \throws std::invalid_argument for names and patterns that no signal has
std::vector<SignalPair> pairSignals(const std::vector<SignalInfo>& reference,
                                    const std::vector<SignalInfo>& other,
                                    const ComparisonOptions& options);

}  // namespace kyr::recording
