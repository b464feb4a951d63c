// The tables that every store has, as clients lay them out ([MS-PST] 2.4.4, 2.4.5).
#pragma once

#include "vault/table_writer.h"

namespace vault {

struct StandardTables {
  TableLayout hierarchy, contents, associated, search_contents, attachments, recipients;
  static const StandardTables& Get();
};

}  // namespace vault
