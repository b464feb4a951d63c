#include <algorithm>

#include "tests/provider/client.h"

namespace test {
namespace {

// The folder of 72 contacts of aspose-contacts72.pst.
class Tables : public ProviderTest {
 protected:
  void SetUp() override {
    SKIP_WITHOUT_SAMPLES();
    ProviderTest::SetUp();
    opened_ = std::make_unique<OpenStore>(Sample(L"aspose-contacts72.pst"));
    ASSERT_TRUE(opened_->store);
    Com<IMAPIFolder> root;
    ULONG type = 0;
    ASSERT_EQ(opened_->store->OpenEntry(0, nullptr, nullptr, 0, &type, root.Out<IUnknown>()), S_OK);
    Com<IMAPITable> folders;
    ASSERT_EQ(root->GetHierarchyTable(CONVENIENT_DEPTH, folders.Out()), S_OK);
    Rows rows;
    ASSERT_EQ(rows.Query(folders.get(), {PR_ENTRYID, PR_CONTENT_COUNT, PR_DEPTH, PR_OBJECT_TYPE}), S_OK);
    EXPECT_EQ(rows.size(), 7u);
    for (ULONG i = 0; i < rows.size(); ++i) {
      EXPECT_GE(rows.At(i, 2).Value.l, 1);
      EXPECT_EQ(rows.At(i, 3).Value.l, MAPI_FOLDER);
      if (rows.At(i, 1).Value.l == 72) folder_ = opened_->Open<IMAPIFolder>(BytesOf(rows.At(i, 0).Value.bin));
    }
    ASSERT_TRUE(folder_);
    ASSERT_EQ(folder_->GetContentsTable(MAPI_UNICODE, table_.Out()), S_OK);
    ASSERT_EQ(table_->SetColumns(Tags({PR_ENTRYID, PR_SUBJECT_W, PR_MESSAGE_SIZE}), 0), S_OK);
  }
  void TearDown() override {
    table_.Reset();
    folder_.Reset();
    opened_.reset();
    ProviderTest::TearDown();
  }

  ULONG Count() {
    ULONG count = 0;
    EXPECT_EQ(table_->GetRowCount(0, &count), S_OK);
    return count;
  }
  ULONG Position() {
    ULONG row = 0, numerator = 0, denominator = 0;
    EXPECT_EQ(table_->QueryPosition(&row, &numerator, &denominator), S_OK);
    return row;
  }
  std::vector<std::wstring> Subjects(LONG wanted, ULONG flags = 0) {
    Rows rows;
    EXPECT_EQ(table_->QueryRows(wanted, flags, &rows.set), S_OK);
    std::vector<std::wstring> subjects;
    for (ULONG i = 0; i < rows.size(); ++i) subjects.emplace_back(rows.At(i, 1).Value.lpszW);
    return subjects;
  }

  std::unique_ptr<OpenStore> opened_;
  Com<IMAPIFolder> folder_;
  Com<IMAPITable> table_;
};

TEST_F(Tables, AreReadForwardBackwardAndInPlace) {
  ASSERT_EQ(Count(), 72u);
  const auto first = Subjects(5);
  EXPECT_EQ(Position(), 5u);
  const auto next = Subjects(3, TBL_NOADVANCE);
  EXPECT_EQ(Position(), 5u);
  EXPECT_EQ(Subjects(3), next);
  EXPECT_EQ(Subjects(-3), next);
  EXPECT_EQ(Subjects(-100), first);
  EXPECT_EQ(Position(), 0u);
  EXPECT_EQ(Subjects(100).size(), 72u);
  EXPECT_TRUE(Subjects(1).empty());

  LONG moved = 0;
  EXPECT_EQ(table_->SeekRow(BOOKMARK_END, -2, &moved), S_OK);
  EXPECT_EQ(moved, -2);
  EXPECT_EQ(Subjects(10).size(), 2u);
  EXPECT_EQ(table_->SeekRow(BOOKMARK_BEGINNING, 1000, &moved), S_OK);
  EXPECT_EQ(moved, 72);
  EXPECT_EQ(table_->SeekRowApprox(1, 2), S_OK);
  EXPECT_EQ(Position(), 36u);
  BOOKMARK bookmark = 0;
  ASSERT_EQ(table_->CreateBookmark(&bookmark), S_OK);
  Subjects(4);
  EXPECT_EQ(table_->SeekRow(bookmark, 0, nullptr), S_OK);
  EXPECT_EQ(Position(), 36u);
  EXPECT_EQ(table_->FreeBookmark(bookmark), S_OK);
  EXPECT_EQ(table_->SeekRow(bookmark, 0, nullptr), Code(MAPI_E_INVALID_BOOKMARK));
}

TEST_F(Tables, SortAndStayWhole) {
  auto expected = Subjects(100);
  struct {
    ULONG sorts, categories, expanded;
    SSortOrder order[1];
  } sort = {1, 0, 0, {{PR_SUBJECT_W, TABLE_SORT_DESCEND}}};
  ASSERT_EQ(table_->SortTable(reinterpret_cast<LPSSortOrderSet>(&sort), 0), S_OK);
  const auto sorted = Subjects(100);
  ASSERT_EQ(sorted.size(), expected.size());
  for (std::size_t i = 1; i < sorted.size(); ++i) {
    EXPECT_GE(CompareStringW(LOCALE_INVARIANT, NORM_IGNORECASE, sorted[i - 1].c_str(), -1, sorted[i].c_str(), -1),
              CSTR_EQUAL);
  }
  EXPECT_TRUE(std::is_permutation(sorted.begin(), sorted.end(), expected.begin()));
  EXPECT_EQ(table_->SortTable(nullptr, 0), S_OK);
  EXPECT_EQ(Subjects(100), expected);
}

TEST_F(Tables, RestrictByEveryKind) {
  const auto all = Subjects(100);
  SPropValue text{}, number{};
  text.ulPropTag = PR_SUBJECT_W;
  std::wstring word = all[10].substr(0, 3);
  CharUpperW(word.data());
  text.Value.lpszW = word.data();
  number.ulPropTag = PR_MESSAGE_SIZE;
  number.Value.l = 0;

  SRestriction prefix = {RES_CONTENT, {.resContent = {FL_PREFIX | FL_IGNORECASE, PR_SUBJECT_W, &text}}};
  SRestriction both[] = {prefix, {RES_PROPERTY, {.resProperty = {RELOP_GT, PR_MESSAGE_SIZE, &number}}}};
  const auto expected = std::count_if(all.begin(), all.end(), [&](std::wstring subject) {
    CharUpperW(subject.data());
    return subject.starts_with(word);
  });
  ASSERT_GE(expected, 1);
  const auto some = static_cast<ULONG>(expected);
  std::pair<SRestriction, ULONG> cases[] = {
      {prefix, some},
      {{RES_NOT, {.resNot = {0, &prefix}}}, 72 - some},
      {{RES_AND, {.resAnd = {2, both}}}, some},
      {{RES_OR, {.resOr = {2, both}}}, 72},
      {{RES_EXIST, {.resExist = {0, PR_SUBJECT_W, 0}}}, 72},
      {{RES_EXIST, {.resExist = {0, PR_RTF_COMPRESSED, 0}}}, 0},
      {{RES_BITMASK, {.resBitMask = {BMR_NEZ, PR_OBJECT_TYPE, MAPI_MESSAGE}}}, 72},
      {{RES_SIZE, {.resSize = {RELOP_EQ, PR_ENTRYID, 24}}}, 72},
      {{RES_COMPAREPROPS, {.resCompareProps = {RELOP_EQ, PR_SUBJECT_W, PR_SUBJECT_W}}}, 72}};
  for (auto& [restriction, count] : cases) {
    SCOPED_TRACE(restriction.rt);
    Subjects(1);
    ASSERT_EQ(table_->Restrict(&restriction, 0), S_OK);
    EXPECT_EQ(Count(), count);
    EXPECT_EQ(Position(), 0u);
  }
  ASSERT_EQ(table_->Restrict(nullptr, 0), S_OK);
  EXPECT_EQ(Subjects(100), all);
}

TEST_F(Tables, RestrictionsThatGoTooDeepAreRefused) {
  std::vector<SRestriction> chain(100);
  for (std::size_t i = 0; i + 1 < chain.size(); ++i) {
    chain[i].rt = RES_NOT;
    chain[i].res.resNot.lpRes = &chain[i + 1];
  }
  chain.back().rt = RES_EXIST;
  chain.back().res.resExist.ulPropTag = PR_SUBJECT_W;
  EXPECT_EQ(table_->Restrict(chain.data(), 0), Code(MAPI_E_TOO_COMPLEX));
  EXPECT_EQ(Count(), 72u);
}

TEST_F(Tables, FindRowsInBothDirections) {
  const auto all = Subjects(100);
  SPropValue text{};
  text.ulPropTag = PR_SUBJECT_W;
  text.Value.lpszW = const_cast<LPWSTR>(all[40].c_str());
  SRestriction exact = {RES_PROPERTY, {.resProperty = {RELOP_EQ, PR_SUBJECT_W, &text}}};
  ASSERT_EQ(table_->FindRow(&exact, BOOKMARK_BEGINNING, 0), S_OK);
  EXPECT_EQ(Subjects(1).at(0), all[40]);
  ASSERT_EQ(table_->FindRow(&exact, BOOKMARK_END, DIR_BACKWARD), S_OK);
  EXPECT_EQ(Subjects(1).at(0), all[40]);
  text.Value.lpszW = const_cast<LPWSTR>(L"nobody is called so");
  const ULONG before = Position();
  EXPECT_EQ(table_->FindRow(&exact, BOOKMARK_BEGINNING, 0), Code(MAPI_E_NOT_FOUND));
  EXPECT_EQ(Position(), before);
}

TEST_F(Tables, ColumnsComeFromTheItemWhereTheTableHasNone) {
  ASSERT_EQ(table_->SetColumns(Tags({PR_DISPLAY_NAME_W, PR_CONTACT_ADDRTYPES, PR_PARENT_ENTRYID}), 0), S_OK);
  Rows rows;
  ASSERT_EQ(table_->QueryRows(100, 0, &rows.set), S_OK);
  ASSERT_EQ(rows.size(), 72u);
  for (ULONG i = 0; i < rows.size(); ++i) {
    ASSERT_EQ(rows[i].cValues, 3u);
    EXPECT_EQ(rows.At(i, 0).ulPropTag, ULONG{PR_DISPLAY_NAME_W});
    EXPECT_EQ(rows.At(i, 1).ulPropTag, PROP_TAG(PT_ERROR, PROP_ID(PR_CONTACT_ADDRTYPES)));
    EXPECT_EQ(rows.At(i, 1).Value.err, MAPI_E_NOT_FOUND);
    EXPECT_EQ(rows.At(i, 2).ulPropTag, ULONG{PR_PARENT_ENTRYID});
  }
  LPSPropTagArray columns = nullptr;
  ASSERT_EQ(table_->QueryColumns(0, &columns), S_OK);
  EXPECT_EQ(columns->cValues, 3u);
  Mapi().FreeBuffer(columns);
}

TEST_F(Tables, QueryAllRowsRefusesMoreThanItsLimit) {
  Rows rows;
  EXPECT_EQ(rows.Query(table_.get(), {PR_ENTRYID}, 71), Code(MAPI_E_TABLE_TOO_BIG));
  EXPECT_EQ(rows.set, nullptr);
  EXPECT_EQ(rows.Query(table_.get(), {PR_ENTRYID}, 72), S_OK);
  EXPECT_EQ(rows.size(), 72u);
}

}  // namespace
}  // namespace test
