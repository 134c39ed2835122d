#include <fmt/format.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <unordered_set>

#include "measures.h"
#include "measuring.h"
#include "src/components/rfidconfig.h"

namespace bench {

namespace {

constexpr const char* kFile = "rfid_standalone.json";
constexpr std::size_t kLongest = 100000;
/// A look-up takes about as long as reading the clock, so several are timed at once.
constexpr int kLookUpsAtOnce = 20;

/// The UIDs of a list: 7 bytes, like most cards', and well spread.
std::string Uid(std::size_t i) {
  const auto number = static_cast<std::uint32_t>(i);
  return fmt::format("04{:08X}{:04X}", number * 2654435761U, number * 40503U & 0xFFFFU);
}

std::string List(std::size_t cards) {
  std::string text = R"({"Tokens":[)";
  for (std::size_t i = 0; i < cards; ++i) {
    text += fmt::format(R"({}{{"RfidTokenUid":"{}"}})", i == 0 ? "" : ",", Uid(i));
  }
  return text + "]}";
}

CRfidConfig MakeConfig(const TemporaryFolder& store) {
  HubConfig::SetStore(store.Path(""));
  return {HubConfig::Create("settings", "/", {}), HubConfig::Create("rfid_standalone", "/", {})};
}

/// A database of the cards with a prepared query.
class Database {
 public:
  Database(const std::string& file, std::size_t cards) {
    Require(sqlite3_open(file.c_str(), &mDatabase));
    Execute("PRAGMA synchronous=OFF; CREATE TABLE cards(uid TEXT PRIMARY KEY) WITHOUT ROWID; BEGIN");
    for (std::size_t i = 0; i < cards; ++i) {
      Execute(fmt::format("INSERT OR IGNORE INTO cards VALUES('{}')", Uid(i)));
    }
    Execute("COMMIT");
    Require(sqlite3_prepare_v2(mDatabase, "SELECT 1 FROM cards WHERE uid=?", -1, &mQuery, nullptr));
  }
  ~Database() {
    sqlite3_finalize(mQuery);
    sqlite3_close(mDatabase);
  }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  bool Has(const std::string& uid) const {
    sqlite3_bind_text(mQuery, 1, uid.c_str(), -1, SQLITE_STATIC);
    const bool found = sqlite3_step(mQuery) == SQLITE_ROW;
    sqlite3_reset(mQuery);
    return found;
  }

 private:
  void Execute(const std::string& statement) const {
    Require(sqlite3_exec(mDatabase, statement.c_str(), nullptr, nullptr, nullptr));
  }
  void Require(int result) const {
    if (result != SQLITE_OK) {
      throw std::runtime_error(std::string("SQLite: ") + sqlite3_errmsg(mDatabase));
    }
  }

  sqlite3* mDatabase = nullptr;
  sqlite3_stmt* mQuery = nullptr;
};

struct Subject {
  const char* name;
  std::function<bool(const std::string&)> isPermitted;
  std::vector<double> times{};
};

/// Asks the subjects in turn. Half of the cards are in the list.
void AskInTurns(std::array<Subject, 3>& subjects, std::size_t cards, int rounds) {
  for (int round = 0; round < rounds; ++round) {
    const bool isIn = round % 2 == 0;
    const std::string uid = isIn ? Uid(static_cast<std::size_t>(round) * 7919 % cards) : "FFFFFFFF";
    for (Subject& subject : subjects) {
      bool right = true;
      const double time = Time([&] {
        for (int i = 0; i < kLookUpsAtOnce; ++i) {
          right &= subject.isPermitted(uid) == isIn;
        }
      });
      if (!right) {
        throw std::runtime_error(fmt::format("{} is wrong about {}", subject.name, uid));
      }
      subject.times.push_back(time / kLookUpsAtOnce);
    }
  }
}

}  // namespace

Run MeasureLookUp(const Plan& plan) {
  const std::vector<std::size_t> sizes = plan.isFull
                                             ? std::vector<std::size_t>{10, 100, 1000, 10000, 30000, kLongest}
                                             : std::vector<std::size_t>{10, 1000};
  Run run;
  for (const std::size_t cards : sizes) {
    const TemporaryFolder store;
    store.Write(kFile, List(cards));
    CRfidConfig config = MakeConfig(store);
    std::unordered_set<std::string> set;
    for (std::size_t i = 0; i < cards; ++i) {
      set.insert(Uid(i));
    }
    const Database database(store.Path("cards.db"), cards);
    const std::string file = store.Path(kFile);
    std::array<Subject, 3> subjects{
        Subject{
            "rfidd",
            [&](const auto& uid) { return config.AuthenticateToken(uid) == ipc::ERfidUidInStandAloneList; }},
        Subject{"hash set",
                [&](const auto& uid) {  // it must notice a changed file, too
                  struct stat data {};
                  return stat(file.c_str(), &data) == 0 && set.contains(uid);
                }},
        Subject{"SQLite", [&](const auto& uid) { return database.Has(uid); }}};
    AskInTurns(subjects, cards, plan.Count(400, 4));
    const double ours = Median(subjects[0].times);
    for (std::size_t peer : {1U, 2U}) {
      if (cards != 100 && cards != 10000) {
        run.rows.push_back({fmt::format("list look-up, {} cards", cards), "us", ours, subjects[peer].name,
                            Median(subjects[peer].times), peer == 1 ? 1.5 : 0});
      }
    }
    for (const Subject& subject : subjects) {
      run.curves[std::string("list ") + subject.name].emplace_back(static_cast<double>(cards),
                                                                   Median(subject.times));
    }
  }
  return run;
}

Run MeasureListLoading(const Plan& plan) {
  const std::size_t cards = plan.isFull ? kLongest : 1000;
  const TemporaryFolder store;
  store.Write(kFile, List(10));
  CRfidConfig config = MakeConfig(store);
  config.AuthenticateToken("FFFFFFFF");
  store.Write(kFile, List(cards));
  const std::string last = Uid(cards - 1);
  ForgetPeakMemory();
  const auto memory = [](const char* name) { return static_cast<double>(MemoryOf(getpid(), name)) / 1024; };
  const double before = memory("VmRSS");
  bool found = false;
  const double time = Time([&] { found = config.AuthenticateToken(last) == ipc::ERfidUidInStandAloneList; });
  if (!found) {
    throw std::runtime_error("the last card of the list was not found");
  }
  const std::string what = fmt::format("list of {} cards taken over, ", cards);
  return {{{what + "time", "ms", time / 1000, "", 0, 0, 1500},
           {what + "memory at its peak", "MiB", memory("VmHWM") - before, "", 0, 0, 30},
           {what + "memory kept", "MiB", memory("VmRSS") - before, "", 0, 0, 30}},
          {}};
}

}  // namespace bench
