#include "vault/heap.h"

namespace vault {
namespace {

constexpr std::uint8_t kHeapSignature = 0xEC;
constexpr unsigned kHeapHeader = 12;

// Some clients store strings with their closing NUL.
std::span<const std::uint8_t> WithoutNul(PropType type, std::span<const std::uint8_t> bytes) {
  const std::size_t width = type == PropType::kUnicode ? 2 : type == PropType::kString8 ? 1 : 0;
  if (width == 0) return bytes;
  bytes = bytes.first(bytes.size() / width * width);
  if (bytes.size() >= width && bytes.back() == 0 && (width == 1 || bytes[bytes.size() - 2] == 0)) {
    bytes = bytes.first(bytes.size() - width);
  }
  return bytes;
}

}  // namespace

std::shared_ptr<const Heap> Heap::Open(std::shared_ptr<const Database> db, const NodeInfo& node, HeapClient client) {
  return std::make_shared<const Heap>(std::move(db), node, client);
}

Heap::Heap(std::shared_ptr<const Database> db, const NodeInfo& node, HeapClient client)
    : db_(db), node_(node), blocks_(std::move(db), node.data, node.nid) {
  const auto first = blocks_.size() ? blocks_[0] : std::span<const std::uint8_t>{};
  if (first.size() < kHeapHeader || first[2] != kHeapSignature) {
    throw Error(ErrorCode::kBadHeap, "the node holds no heap", std::nullopt, nid());
  }
  client_ = static_cast<HeapClient>(first[3]);
  if (client != HeapClient::kAny && client != client_) {
    throw Error(ErrorCode::kBadHeap, "the node's heap is not of the kind that its place needs", std::nullopt, nid());
  }
  root_ = Load32(first.data() + 4);
}

std::span<const std::uint8_t> Heap::Item(std::uint32_t hid) const {
  if (hid == 0) return {};
  const std::uint32_t block_index = hid >> 16, index = (hid >> 5) & 0x7FF;
  const auto bad = [&](const char* what) { return Error(ErrorCode::kBadHeap, what, std::nullopt, nid()); };
  if (hid & 0x1F || index == 0) throw bad("a reference into a heap is none");
  if (block_index >= blocks_.size()) throw bad("a reference leads out of its heap");
  const auto block = blocks_[block_index];
  const std::size_t map = block.size() >= 2 ? Load16(block.data()) : block.size();
  if (map + 4 > block.size()) throw bad("a heap's page map lies outside its block");
  const unsigned count = Load16(block.data() + map);
  if (map + 4 + 2 * (count + std::size_t{1}) > block.size()) throw bad("a heap's page map is cut off");
  if (index > count) throw bad("a reference leads behind the last item of its heap");
  const std::uint8_t* const bounds = block.data() + map + 4 + 2 * (index - 1);
  const std::size_t begin = Load16(bounds), end = Load16(bounds + 2);
  if (begin > end || end > map) throw bad("an item of a heap has impossible bounds");
  return block.subspan(begin, end - begin);
}

PropertyValue Heap::Resolve(PropTag tag, std::uint32_t reference) const {
  if (reference & 0x1F) return {tag, Nid{reference}};
  return {tag, WithoutNul(PropTypeOf(tag), Item(reference))};
}

NodeInfo Heap::Subnode(Nid nid) const {
  if (const auto node = db_->FindSubnode(node_.subnodes, nid)) return *node;
  throw Error(ErrorCode::kNotFound, "a subnode is referred to but not there", std::nullopt, node_.nid);
}

ValueReader Heap::OpenValue(std::shared_ptr<const Heap> self, const PropertyValue& value) {
  if (!value.is_long()) return {std::move(self), value.bytes()};
  return {self->db_, self->Subnode(value.long_value()).data, self->nid(), value.type()};
}

}  // namespace vault
