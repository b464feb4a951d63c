#include "vault/standard_tables.h"

namespace vault {
namespace {

// Columns of the tables, in the order in which clients lay them out.
constexpr PropTag kHierarchyColumns[] = {0x67F20003, 0x67F30003, 0x3001001F, 0x36020003, 0x36030003,
                                         0x0E300102, 0x0E330014, 0x0E340102, 0x0E380003, 0x3613001F,
                                         0x66350003, 0x66360003, 0x360A000B};
constexpr PropTag kContentsColumns[] = {0x67F20003, 0x67F30003, 0x0E170003, 0x001A001F, 0x0E070003, 0x00170003,
                                        0x0042001F, 0x0037001F, 0x0E060040, 0x00390040, 0x0E080003, 0x0E04001F,
                                        0x0E03001F, 0x00360003, 0x10970003, 0x0070001F, 0x00710102, 0x30130102,
                                        0x65C60003, 0x30080040, 0x0E300102, 0x0E330014, 0x0E340102, 0x0E3D0102,
                                        0x0E3C0102, 0x0E380003, 0x0057000B, 0x0058000B};
constexpr PropTag kAssociatedColumns[] = {0x67F20003, 0x67F30003, 0x0E170003, 0x001A001F, 0x0E070003,
                                          0x3001001F, 0x70030003, 0x70040102, 0x70050102, 0x7006001F,
                                          0x70070003, 0x6800001F, 0x68051003, 0x682F001F, 0x6803000B};
constexpr PropTag kSearchColumns[] = {0x67F20003, 0x67F30003, 0x67F10003, 0x0E05001F, 0x0E170003,
                                      0x001A001F, 0x0E070003, 0x00170003, 0x0042001F, 0x0037001F,
                                      0x0E060040, 0x0E080003, 0x0E04001F, 0x0E03001F, 0x00360003,
                                      0x30080040, 0x0057000B, 0x0058000B, 0x0E2A000B};
constexpr PropTag kAttachmentColumns[] = {0x67F20003, 0x67F30003, 0x370B0003, 0x0E200003, 0x37050003, 0x3704001F};
constexpr PropTag kRecipientColumns[] = {0x67F20003, 0x67F30003, 0x3002001F, 0x3003001F, 0x0FFF0102,
                                         0x3001001F, 0x0C150003, 0x300B0102, 0x0FF90102, 0x0FFE0003,
                                         0x39000003, 0x39FF001F, 0x0E0F000B, 0x3A40000B, 0x39FE001F};

}  // namespace

const StandardTables& StandardTables::Get() {
  static const StandardTables tables{TableLayout(kHierarchyColumns),  TableLayout(kContentsColumns),
                                     TableLayout(kAssociatedColumns), TableLayout(kSearchColumns),
                                     TableLayout(kAttachmentColumns), TableLayout(kRecipientColumns)};
  return tables;
}

}  // namespace vault
