// Items whose session ends under them, and items of a provider that does only what MAPI promises.
#include "include/HoardexPH.h"
#include "tests/module/filter_fixture.h"

namespace {

using Microsoft::WRL::ComPtr;

class LifeOfItems : public Filter {
 protected:
  // A mail with more recipients and attachments than a careless provider hands out at once; its URL.
  std::wstring Mail() {
    vault::StoreBuilder store("items");
    auto& mail = AddMail(store.top().AddFolder("Inbox")).Body("Body");
    for (int i = 0; i < 5; ++i) mail.To("Name", "to" + std::to_string(i) + "@example.org");
    for (int i = 0; i < 5; ++i)
      mail.AttachFile(std::to_string(i) + ".txt", std::string(300, static_cast<char>('a' + i)))
          .Time(0x3008, vault::FileTime(2024, 5, 1));
    return MessagesOf(Write(store)).at(0);
  }
  static std::vector<std::wstring> Texts(const std::vector<Chunk>& chunks) {
    std::vector<std::wstring> texts;
    for (const Chunk& chunk : chunks) texts.push_back(chunk.text);
    return texts;
  }
  void TearDown() override {
    ProviderFaults::Behave(0);
    EXPECT_EQ(ProviderFaults::Misuses(), 0);
    Filter::TearDown();
  }
};

// A host has one protocol object for each of its threads, and each of them ends sessions by its Init and its ShutDown.
TEST_F(LifeOfItems, SurviveTheEndOfTheirSessions) {
  const std::wstring url = Mail();
  const auto whole = Read(url);
  const auto content = Read(Links(whole).at(0));
  ComPtr<ISearchProtocol> other;
  ComPtr<IClassFactory> factory;
  ASSERT_EQ(host_.GetClassObject(CLSID_HoardexSP, IID_IClassFactory, &factory), S_OK);
  ASSERT_EQ(factory->CreateInstance(nullptr, __uuidof(ISearchProtocol), &other), S_OK);

  Item unbound(protocol_.Get(), url), bound(protocol_.Get(), url), begun(protocol_.Get(), url);
  Item listing(protocol_.Get(), url.substr(0, url.rfind(L'/')));
  ASSERT_EQ(bound.Bind(), S_OK);
  ASSERT_EQ(begun.Bind(), S_OK);
  ASSERT_EQ(listing.Bind(), S_OK);
  STAT_CHUNK first = {};
  ASSERT_EQ(begun.filter->GetChunk(&first), S_OK);
  other->Init(nullptr, &site_, nullptr);
  EXPECT_EQ(bound.ReadAll().size(), whole.size());
  EXPECT_EQ(begun.ReadAll().size(), whole.size() - 1);
  other->ShutDown();
  EXPECT_EQ(Links(listing.ReadAll()), std::vector<std::wstring>{url});
  // The host's own end, while it still holds an accessor and makes a filter of it.
  protocol_->ShutDown();
  ASSERT_EQ(unbound.Bind(), S_OK);
  EXPECT_EQ(Texts(unbound.ReadAll()), Texts(whole));
  EXPECT_EQ(Texts(Read(Links(whole).at(0))), Texts(content)) << "a new session takes the place of the old one";
}

TEST_F(LifeOfItems, AreTheSameFromACarelessProvider) {
  const std::wstring url = Mail();
  const auto read = [&] {
    std::vector<std::vector<std::wstring>> all = {Texts(Read(url))};
    for (const std::wstring& link : Links(Read(url))) all.push_back(Texts(Read(link)));
    return all;
  };
  const auto plain = read();
  ASSERT_EQ(plain.size(), 6u);
  for (const unsigned manners : {kHoardexMapiGivesFewRows, kHoardexMapiCopiesUncounted, kHoardexMapiLeavesTypes}) {
    ProviderFaults::Behave(manners);
    EXPECT_EQ(read(), plain) << manners;
  }
}

// Mail clients change a store's file at each opening: its folders look new to the next crawl, its messages do not.
TEST_F(LifeOfItems, KeepTheirTimesWhenOpeningTouchesTheStore) {
  const std::wstring url = Mail(), folder = url.substr(0, url.rfind(L'/')),
                     vault = folder.substr(0, folder.rfind(L'/'));
  ProviderFaults::Behave(kHoardexMapiTouchesStores);
  const auto times = [&] {
    protocol_->ShutDown();
    Sleep(20);
    return std::pair(Find(Read(vault), kLink, 12)->number, Find(Read(folder), kLink, 12)->number);
  };
  const auto first = times(), second = times();
  EXPECT_GT(second.first, first.first);
  EXPECT_EQ(second.second, first.second);
}

}  // namespace
