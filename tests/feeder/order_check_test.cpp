#include "feeder/order_check.h"

#include "tests/support/feeder_fixture.h"

#include <string>
#include <string_view>

namespace quenmark::test {
namespace {

constexpr const char* kQuoteStamp = "20240315103005";
constexpr const char* kNow = "20240315103000";  // of the test's clock

class Orders : public FeederFixture {
 protected:
  void Put(std::string_view section, std::string_view key, std::string_view value) {
    store->SaveSetting("KLV-PT", section, key, value);
  }
  std::string At(std::string_view section, std::string_view key) { return store->GetSetting("KLV-PT", section, key); }
  void Check(double last) { feeder::CheckOrders(context, "SYM", last, kQuoteStamp); }
};

TEST_F(Orders, EveryOneEndsWhereItBelongs) {
  constexpr struct {
    std::string_view name, key, value, status;
    std::string_view list;  // where the entry is afterwards, "" for nowhere
    std::string_view newStatus, fillPrice;
  } kRows[] = {{"buy above last", "B|7", "10.01", "1", "Today", "4", "10.01"},
               {"buy at last", "B|7", "10.00", "1", "Open", "1", ""},
               {"buy below last", "B|7", "9.99", "1", "Open", "1", ""},
               {"sell below last", "s|7", "9.50", "1", "Today", "4", "9.5"},
               {"sell at last", "S|7", "10", "1", "Open", "1", ""},
               {"unknown side", "X|7", "10.01", "1", "Today", "9", "0"},
               {"unknown side of two bytes", "\u00C9|7", "10.01", "1", "Today", "9", "0"},
               {"no price", "B|7", "0", "1", "Today", "9", "0"},
               {"price is no number", "B|7", "ten", "1", "Today", "9", "0"},
               {"already filled", "B|7", "5", "4", "Error", "9", ""},
               {"status missing", "S|7", "5", "", "Error", "9", ""},
               {"conflict without price", "B|7", "0", "4", "Open", "4", ""},
               {"key without bar", "B7", "5", "1", "", "1", ""},
               {"bar in the wrong place", "BB|7", "5", "1", "", "1", ""},
               {"bar first", "|7", "5", "1", "", "1", ""}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    store->DeleteApplication("KLV-PT");
    Put("Open-SYM", row.key, row.value);
    Put("Ord-Status", "7", row.status);
    Put("Ord-Qty", "7", "100");
    Check(10);
    for (const std::string list : {"Open", "Today", "Error"}) {
      EXPECT_EQ(At(list + "-SYM", row.key), list == row.list ? row.value : "") << list;
    }
    EXPECT_EQ(At("Ord-Status", "7"), row.newStatus);
    EXPECT_EQ(At("Ord-PrcFill", "7"), row.fillPrice);
    const bool decided = row.list == "Today";
    EXPECT_EQ(At("Ord-QDate", "7"), decided ? kQuoteStamp : "");
    EXPECT_EQ(At("Ord-EndDate", "7"), decided ? kNow : "");
    EXPECT_EQ(At("SeqOrd", "7"), decided || row.list == "Error" ? kNow : "");
  }
}

TEST_F(Orders, PositionsAreBookedAtTheLimitPrice) {
  constexpr struct {
    std::string_view name, position, average, key, price, quantity, newPosition, newAverage;
  } kRows[] = {{"opens", "", "", "B|7", "10", "100", "100", "10"},
               {"adds", "100", "12", "B|7", "10", "100", "200", "11"},
               {"reduces", "100", "12", "S|7", "15", "50", "50", "9"},
               {"closes", "100", "12", "S|7", "15", "100", "0", "12"},
               {"flips", "100", "12", "S|7", "15", "150", "-50", "21"},
               {"goes short", "0", "", "S|7", "15", "10", "-10", "15"},
               {"no quantity", "5", "12", "B|7", "15", "many", "5", "12"},
               {"fractions", "1", "10", "B|7", "10.5", "0.5", "1.5", "10.166666666666666"}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    Put("Pos", "SYM", row.position);
    Put("Pos", "SYM-Prc", row.average);
    Put("Ord-Status", "7", "1");
    Put("Ord-Qty", "7", row.quantity);
    Put("Open-SYM", row.key, row.price);
    Check(row.key[0] == 'B' ? 0.01 : 1000);
    EXPECT_EQ(At("Pos", "SYM"), row.newPosition);
    EXPECT_EQ(At("Pos", "SYM-Prc"), row.newAverage);
    EXPECT_EQ(At("Ord-Status", "7"), "4");
  }
}

TEST_F(Orders, WalkHandlesEveryEntryAndKeepsTheRest) {
  Put("Open-SYM", "B|1", "11");
  Put("Open-SYM", "broken", "1");
  Put("Open-SYM", "B|2", "9");
  Put("Open-SYM", "S|3", "9");
  Put("Open-SYM", "B|4", "12");
  Put("Open-OTHER", "B|5", "12");
  for (const char* id : {"1", "2", "3", "4", "5"}) {
    Put("Ord-Status", id, "1");
    Put("Ord-Qty", id, "10");
  }
  Put("Ord-Qty", "1", "none");
  Put("Ord-Qty", "3", "4");
  Check(10);
  EXPECT_EQ(store->GetAllSettings("KLV-PT", "Open-SYM"), (platform::SettingsStore::Pairs{{"B|2", "9"}}));
  EXPECT_EQ(store->GetAllSettings("KLV-PT", "Today-SYM").size(), 3u);
  EXPECT_EQ(At("Open-OTHER", "B|5"), "12");
  EXPECT_EQ(At("Pos", "SYM"), "6");
}

TEST_F(Orders, ConflictIsToldNewestFirst) {
  store->SaveSetting("GetDetalhes", "7", "Detalhes", "earlier");
  Put("Open-SYM", "B|7", "5");
  Put("Ord-Status", "7", "4");
  Check(10);
  EXPECT_EQ(store->GetSetting("GetDetalhes", "7", "Detalhes"),
            "* Order Error 7 Error: Order status does not match conditions (Open with Status 4) (2024-03-15 10:30:00 - "
            "local computer time)<br><br>earlier");
}

}  // namespace
}  // namespace quenmark::test
