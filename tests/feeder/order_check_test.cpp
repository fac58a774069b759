#include "feeder/order_check.h"

#include "tests/support/feeder_fixture.h"

#include <map>

namespace quenmark::test {
namespace {

constexpr const char* kQuoteStamp = "20240315103005";
constexpr const char* kNow = "20240315103000";  // of the test's clock

struct OrderCase {
  const char* name;
  const char* key;
  const char* value;
  const char* status;
  const char* list;  // where the entry is afterwards: "Open", "Today", "Error", "" for nowhere
  const char* newStatus;
  const char* fillPrice;
};

class Orders : public FeederFixture {
 protected:
  void Put(const std::string& section, const std::string& key, const std::string& value) {
    store->SaveSetting("KLV-PT", section, key, value);
  }
  std::string At(const std::string& section, const std::string& key) {
    return store->GetSetting("KLV-PT", section, key);
  }
  void Check(double last) { feeder::CheckOrders(context, "SYM", last, kQuoteStamp); }
};

class OneOrder : public Orders, public ::testing::WithParamInterface<OrderCase> {};

TEST_P(OneOrder, EndsWhereItBelongs) {
  const OrderCase& row = GetParam();
  Put("Open-SYM", row.key, row.value);
  Put("Ord-Status", "7", row.status);
  Put("Ord-Qty", "7", "100");
  Check(10);
  for (const std::string list : {"Open", "Today", "Error"}) {
    EXPECT_EQ(At(list + "-SYM", row.key), list == row.list ? row.value : "") << list;
  }
  EXPECT_EQ(At("Ord-Status", "7"), row.newStatus);
  EXPECT_EQ(At("Ord-PrcFill", "7"), row.fillPrice);
  const bool decided = std::string_view(row.list) == "Today";
  EXPECT_EQ(At("Ord-QDate", "7"), decided ? kQuoteStamp : "");
  EXPECT_EQ(At("Ord-EndDate", "7"), decided ? kNow : "");
  const bool moved = decided || std::string_view(row.list) == "Error";
  EXPECT_EQ(At("SeqOrd", "7"), moved ? kNow : "");
}

INSTANTIATE_TEST_SUITE_P(Rows, OneOrder,
                         ::testing::Values(OrderCase{"BuyAboveLast", "B|7", "10.01", "1", "Today", "4", "10.01"},
                                           OrderCase{"BuyAtLast", "B|7", "10.00", "1", "Open", "1", ""},
                                           OrderCase{"BuyBelowLast", "B|7", "9.99", "1", "Open", "1", ""},
                                           OrderCase{"SellBelowLast", "s|7", "9.50", "1", "Today", "4", "9.5"},
                                           OrderCase{"SellAtLast", "S|7", "10", "1", "Open", "1", ""},
                                           OrderCase{"UnknownSide", "X|7", "10.01", "1", "Today", "9", "0"},
                                           OrderCase{"NoPrice", "B|7", "0", "1", "Today", "9", "0"},
                                           OrderCase{"PriceIsNoNumber", "B|7", "ten", "1", "Today", "9", "0"},
                                           OrderCase{"AlreadyFilled", "B|7", "5", "4", "Error", "9", ""},
                                           OrderCase{"StatusMissing", "S|7", "5", "", "Error", "9", ""},
                                           OrderCase{"ConflictWithoutPrice", "B|7", "0", "4", "Open", "4", ""},
                                           OrderCase{"KeyWithoutBar", "B7", "5", "1", "", "1", ""},
                                           OrderCase{"BarInTheWrongPlace", "BB|7", "5", "1", "", "1", ""},
                                           OrderCase{"BarFirst", "|7", "5", "1", "", "1", ""}),
                         [](const auto& row) { return row.param.name; });

struct PositionCase {
  const char* name;
  const char* position;
  const char* average;
  const char* key;
  const char* price;
  const char* quantity;
  const char* newPosition;
  const char* newAverage;
};

class Positions : public Orders, public ::testing::WithParamInterface<PositionCase> {};

TEST_P(Positions, AreBookedAtTheLimitPrice) {
  const PositionCase& row = GetParam();
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

INSTANTIATE_TEST_SUITE_P(Rows, Positions,
                         ::testing::Values(PositionCase{"Opens", "", "", "B|7", "10", "100", "100", "10"},
                                           PositionCase{"Adds", "100", "12", "B|7", "10", "100", "200", "11"},
                                           PositionCase{"Reduces", "100", "12", "S|7", "15", "50", "50", "9"},
                                           PositionCase{"Closes", "100", "12", "S|7", "15", "100", "0", "12"},
                                           PositionCase{"Flips", "100", "12", "S|7", "15", "150", "-50", "21"},
                                           PositionCase{"GoesShort", "0", "", "S|7", "15", "10", "-10", "15"},
                                           PositionCase{"NoQuantity", "5", "12", "B|7", "15", "many", "5", "12"},
                                           PositionCase{"Fractions", "1", "10", "B|7", "10.5", "0.5", "1.5",
                                                        "10.166666666666666"}),
                         [](const auto& row) { return row.param.name; });

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
