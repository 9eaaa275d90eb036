#pragma once

namespace kyr {

/// \brief What becomes of symbolic links inside of a folder that somebody else may have made.
enum class Links {
  refused,   ///< an error names the link
  followed,  ///< what is read may lie anywhere; nothing is written through a link in any case
};

}  // namespace kyr
