// Identifiers of the store format ([MS-PST] 2.2.2) and of MAPI properties ([MS-OXCDATA] 2.11).
#pragma once

#include <array>
#include <cstdint>

namespace vault {

// Node id: type in the low 5 bits, index above.
using Nid = std::uint32_t;
// Block id; bit 1 marks internal blocks (lists of blocks and of subnodes).
using Bid = std::uint64_t;
// Property tag: property id in the high 16 bits, type in the low.
using PropTag = std::uint32_t;
using Guid = std::array<std::uint8_t, 16>;  // in the byte order of the file (first three fields little-endian)
using EntryId = std::array<std::uint8_t, 24>;

enum class NidType : std::uint8_t {
  kHeap = 0x00,
  kInternal = 0x01,
  kFolder = 0x02,
  kSearchFolder = 0x03,
  kMessage = 0x04,
  kAttachment = 0x05,
  kAssociatedMessage = 0x08,
  kHierarchyTable = 0x0D,
  kContentsTable = 0x0E,
  kAssociatedTable = 0x0F,
  kSearchContentsTable = 0x10,
  kAttachmentTable = 0x11,
  kRecipientTable = 0x12,
  kLargeValue = 0x1F,
};

constexpr NidType TypeOf(Nid nid) {
  return static_cast<NidType>(nid & 0x1F);
}
constexpr Nid MakeNid(NidType type, std::uint32_t index) {
  return index << 5 | static_cast<Nid>(type);
}
// The node that belongs to `nid` (same index) with another type: a folder's tables.
constexpr Nid Sibling(Nid nid, NidType type) {
  return (nid & ~Nid{0x1F}) | static_cast<Nid>(type);
}

inline constexpr Nid kStoreNid = 0x21;
inline constexpr Nid kNameMapNid = 0x61;
inline constexpr Nid kRootFolderNid = 0x122;
inline constexpr Nid kUsualSubtreeNid = 0x8022;
inline constexpr Nid kAttachmentTableNid = 0x671;  // subnode of a message, and a template in the node tree
inline constexpr Nid kRecipientTableNid = 0x692;   // likewise

enum class PropType : std::uint16_t {
  kUnspecified = 0x0000,
  kInt16 = 0x0002,
  kInt32 = 0x0003,
  kFloat = 0x0004,
  kDouble = 0x0005,
  kCurrency = 0x0006,
  kAppTime = 0x0007,
  kError = 0x000A,
  kBoolean = 0x000B,
  kObject = 0x000D,
  kInt64 = 0x0014,
  kString8 = 0x001E,
  kUnicode = 0x001F,
  kTime = 0x0040,
  kGuid = 0x0048,
  kBinary = 0x0102,
  kMultiFlag = 0x1000,  // added to one of the above
};

constexpr std::uint16_t IdOf(PropTag tag) {
  return static_cast<std::uint16_t>(tag >> 16);
}
constexpr PropType PropTypeOf(PropTag tag) {
  return static_cast<PropType>(tag & 0xFFFF);
}
constexpr PropTag MakeTag(std::uint16_t id, PropType type) {
  return static_cast<PropTag>(id) << 16 | static_cast<PropTag>(type);
}
constexpr bool IsMulti(PropType type) {
  return static_cast<std::uint16_t>(type) & 0x1000;
}
constexpr PropType ElementType(PropType type) {
  return static_cast<PropType>(static_cast<std::uint16_t>(type) & ~0x1000u);
}
// Bytes of one value of a fixed-size type; 0 for strings, binaries, objects and multi-values.
constexpr unsigned FixedSize(PropType type) {
  switch (type) {
    case PropType::kInt16:
      return 2;
    case PropType::kInt32:
    case PropType::kFloat:
    case PropType::kError:
      return 4;
    case PropType::kBoolean:
      return 1;
    case PropType::kDouble:
    case PropType::kCurrency:
    case PropType::kAppTime:
    case PropType::kInt64:
    case PropType::kTime:
      return 8;
    case PropType::kGuid:
      return 16;
    default:
      return 0;
  }
}

// Property ids that the reader itself needs.
namespace prop {
inline constexpr std::uint16_t kMessageClass = 0x001A, kSubject = 0x0037, kMessageFlags = 0x0E07, kMessageSize = 0x0E08,
                               kRecordKey = 0x0FF9, kBody = 0x1000, kDisplayName = 0x3001, kIpmSubtreeEntryId = 0x35E0,
                               kIpmWastebasketEntryId = 0x35E3, kFinderEntryId = 0x35E7, kContentCount = 0x3602,
                               kContentUnread = 0x3603, kSubfolders = 0x360A, kContainerClass = 0x3613,
                               kAttachData = 0x3701, kAttachFilename = 0x3704, kAttachMethod = 0x3705,
                               kAttachLongFilename = 0x3707, kAttachSize = 0x0E20, kInternetCodepage = 0x3FDE,
                               kMessageCodepage = 0x3FFD, kRowId = 0x67F2;
}  // namespace prop

// PR_ATTACH_METHOD.
enum class AttachMethod : std::int32_t {
  kNone = 0,
  kByValue = 1,
  kByReference = 2,
  kByReferenceResolve = 3,
  kByReferenceOnly = 4,
  kEmbedded = 5,
  kOle = 6,
  kWebReference = 7,
};

}  // namespace vault
