#pragma once

#include <arrow/type_fwd.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <unordered_map>

namespace kyr::parquet {

class Content;
class ContentNode;

/// Where a content differs from its parent: the number of the row, and 128 bits of what the content
/// has there.
struct ContentKey {
  std::uint64_t row = 0;
  std::uint64_t low = 0;
  std::uint64_t high = 0;

  /// The key of a content that ends before the row. A row has this digest by a chance of one in
  /// 2^128 only.
  static ContentKey endAt(std::uint64_t row) { return {row, 0, 0}; }
  bool isEnd() const { return low == 0 && high == 0; }

  friend bool operator==(const ContentKey& a, const ContentKey& b) {
    return a.row == b.row && a.low == b.low && a.high == b.high;
  }
  friend bool operator<(const ContentKey& a, const ContentKey& b) {
    return std::tie(a.row, a.low, a.high) < std::tie(b.row, b.low, b.high);
  }
};

struct ContentKeyHash {
  std::size_t operator()(const ContentKey& key) const {
    return static_cast<std::size_t>(key.low ^ (key.row * 0x9E3779B97F4A7C15U));
  }
};

/// The contents of one schema that are no one's child, by their first row.
using ContentRoots = std::unordered_map<ContentKey, ContentNode*, ContentKeyHash>;

/// The place of a content in the tree of contents.
///
/// A content that differs from an earlier one from row n on is its child: it began with a copy of
/// rows 0 to n. Parts that leave the parent at the same row for the same content find the child by
/// its key, and copy nothing.
///
/// Nodes do not own each other. A node that goes leaves its place and its children to one of the
/// children. The children that move to another list are the fewer ones, so that letting n contents
/// go takes a time of n log n whatever the order.
class ContentNode {
 public:
  explicit ContentNode(Content& content) : content_(content) {}
  ~ContentNode();
  ContentNode(const ContentNode&) = delete;
  ContentNode& operator=(const ContentNode&) = delete;

  Content& content() { return content_; }

  /// Both are for a node without a place.
  void attachTo(ContentRoots& roots, const ContentKey& key);
  void attachTo(ContentNode& parent, const ContentKey& key);

  /// The child of that key; null if there is none.
  Content* child(const ContentKey& key) const;
  /// If the content was made because a part ended where another content goes on: that other one,
  /// else null.
  Content* longerContent() const;
  /// The parent, if this content differs from it in no row before \p row; else null.
  Content* parentWith(std::uint64_t row) const;

 private:
  struct Children {
    ContentNode* parent = nullptr;
    std::map<ContentKey, ContentNode*> nodes;
  };

  void leavePlaceTo(ContentNode* successor) noexcept;
  void takeChildren(std::unique_ptr<Children> others) noexcept;

  Content& content_;
  std::unique_ptr<Children> children_;  // null as long as there are none
  // The list that the node is in, under its key: one of both, or none.
  ContentRoots* roots_ = nullptr;
  Children* siblings_ = nullptr;
  ContentKey key_;
};

/// The contents of a store that are no one's child, by their schema.
class ContentTree {
 public:
  ContentRoots& roots(const std::shared_ptr<::arrow::Schema>& schema);

 private:
  std::unordered_map<std::string, ContentRoots> roots_;
  // What roots() has answered. The schemas stay alive here, so that none takes another's address.
  std::unordered_map<std::shared_ptr<::arrow::Schema>, ContentRoots*> known_;
};

}  // namespace kyr::parquet
