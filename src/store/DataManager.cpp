#include "store/DataManager.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <cstdarg>
#include <cstdio>
#include <functional>
#include <initializer_list>

#include "core/LogToFile.h"
#include "core/Paths.h"

namespace tw {

namespace {

constexpr const char* kCreatePlaySettings =
    "CREATE TABLE IF NOT EXISTS PLAY_SETTINGS (ROW INTEGER PRIMARY KEY, SCRIPT_TITLE TEXT, PLAY_DIRECTLY BOOLEAN, "
    "TIME INTEGER, INTERVAL INTEGER, SPEED NUMERIC);";
constexpr const char* kCreateActivatorTrigger =
    "CREATE TABLE IF NOT EXISTS ACTIVATOR_TRIGGER (ROW INTEGER PRIMARY KEY, EVENT_NAME TEXT, FOR_WHAT INTEGER, "
    "SCRIPT_TITLE TEXT);";

constexpr const char* kSelectPlaySettings = "SELECT SCRIPT_TITLE, PLAY_DIRECTLY, TIME, INTERVAL, SPEED FROM PLAY_SETTINGS";
constexpr const char* kSelectActivatorTrigger = "SELECT EVENT_NAME, FOR_WHAT, SCRIPT_TITLE FROM ACTIVATOR_TRIGGER";

// Wait this long for another connection's lock before a statement gives up.
constexpr int kBusyTimeoutMs = 10000;

// The printed form of an absent text, as the formatting of "no object" writes it.
constexpr const char* kAbsentText = "(null)";

// A statement ready to run, or nullopt when one of its texts held a single quote: such a
// statement is treated as one that failed, and is never formatted. A NUL byte would cut the text
// short and so make the statement act on another title; it is refused the same way.
using StatementText = std::optional<std::string>;

bool holdsQuote(std::initializer_list<std::string_view> texts) {
    for (auto t : texts)
        if (t.find_first_of(std::string_view("'\0", 2)) != std::string_view::npos) return true;
    return false;
}

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string out(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0) std::vsnprintf(out.data(), out.size() + 1, fmt, args);
    va_end(args);
    return out;
}

enum class Outcome { NotOpened, Failed, Done };

std::optional<SQLite::Database> open(int flags) {
    try {
        return SQLite::Database(DataManager::dataFilePath(), flags, kBusyTimeoutMs);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// Opens the file (creating it when missing), runs one update statement, closes.
Outcome runUpdate(const StatementText& statement) {
    auto db = open(SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    if (!db) return Outcome::NotOpened;
    if (!statement) return Outcome::Failed;
    try {
        db->exec(*statement);
        return Outcome::Done;
    } catch (const std::exception&) {
        return Outcome::Failed;
    }
}

// The update operations that report a failed statement in the log.
bool loggedUpdate(const StatementText& statement) {
    const Outcome outcome = runUpdate(statement);
    if (outcome == Outcome::Failed) LogToFile("error to update data");
    return outcome == Outcome::Done;
}

bool silentUpdate(const StatementText& statement) { return runUpdate(statement) == Outcome::Done; }

// Opens the file (a missing one is not created), runs one query and hands every row to `row`,
// closes. Rows already handed over stay handed over when a later step fails.
Outcome runQuery(const StatementText& statement, const std::function<void(SQLite::Statement&)>& row) {
    auto db = open(SQLite::OPEN_READONLY);
    if (!db) return Outcome::NotOpened;
    if (!statement) return Outcome::Failed;
    try {
        SQLite::Statement query(*db, *statement);
        while (query.executeStep()) row(query);
        return Outcome::Done;
    } catch (const std::exception&) {
        return Outcome::Failed;
    }
}

// Row mapping: a fresh object per row, so columns not read keep their defaults.
PlaySettings mapPlaySettings(SQLite::Statement& q) {
    PlaySettings s;
    s.filePath = q.getColumn("SCRIPT_TITLE").getString();
    s.playDirectly = q.getColumn("PLAY_DIRECTLY").getInt() != 0;
    s.repeatTime = static_cast<int64_t>(q.getColumn("TIME").getInt());
    s.repeatInterval = static_cast<int64_t>(q.getColumn("INTERVAL").getInt());
    s.playSpeed = static_cast<float>(q.getColumn("SPEED").getDouble());
    return s;
}

ActivatorTrigger mapActivatorTrigger(SQLite::Statement& q) {
    ActivatorTrigger t;
    t.eventName = q.getColumn("EVENT_NAME").getString();
    t.forWhat = static_cast<int64_t>(q.getColumn("FOR_WHAT").getInt());
    const SQLite::Column path = q.getColumn("SCRIPT_TITLE");
    if (!path.isNull()) t.filePath = path.getString();
    return t;
}

std::optional<std::vector<PlaySettings>> queryPlaySettings(const StatementText& statement) {
    std::vector<PlaySettings> rows;
    if (runQuery(statement, [&](SQLite::Statement& q) { rows.push_back(mapPlaySettings(q)); }) ==
        Outcome::NotOpened)
        return std::nullopt;
    return rows;
}

std::optional<std::vector<ActivatorTrigger>> queryActivatorTriggers(const StatementText& statement) {
    std::vector<ActivatorTrigger> rows;
    if (runQuery(statement, [&](SQLite::Statement& q) { rows.push_back(mapActivatorTrigger(q)); }) ==
        Outcome::NotOpened)
        return std::nullopt;
    return rows;
}

std::optional<ActivatorTrigger> firstActivatorTrigger(const StatementText& statement) {
    auto rows = queryActivatorTriggers(statement);
    if (!rows || rows->empty()) return std::nullopt;
    return rows->front();
}

long asLong(int64_t v) { return static_cast<long>(v); }

}  // namespace

std::string DataManager::dataFilePath() { return Paths::libraryDir() + "/" + kDatabaseFileName; }

bool DataManager::initDb() {
    auto db = open(SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    bool ok = db.has_value();
    if (ok) {
        for (const char* statement : {kCreatePlaySettings, kCreateActivatorTrigger}) {
            try {
                db->exec(statement);
            } catch (const std::exception&) {
                ok = false;
            }
        }
    }
    if (!ok) LogToFile("error to init db");
    return ok;
}

bool DataManager::insertPlaySettings(const PlaySettings& s) {
    StatementText statement;
    if (!holdsQuote({s.filePath}))
        statement = format(
            "INSERT OR REPLACE INTO PLAY_SETTINGS (SCRIPT_TITLE, PLAY_DIRECTLY, TIME, INTERVAL, SPEED) VALUES ('%s', "
            "%d, %ld,%ld, %.1f);",
            s.filePath.c_str(), s.playDirectly ? 1 : 0, asLong(s.repeatTime), asLong(s.repeatInterval),
            static_cast<double>(s.playSpeed));
    return loggedUpdate(statement);
}

bool DataManager::updatePlaySettings(const PlaySettings& s) {
    StatementText statement;
    if (!holdsQuote({s.filePath}))
        statement = format(
            "UPDATE PLAY_SETTINGS SET PLAY_DIRECTLY=%d, TIME=%ld, INTERVAL=%ld, SPEED=%.1f WHERE SCRIPT_TITLE='%s';",
            s.playDirectly ? 1 : 0, asLong(s.repeatTime), asLong(s.repeatInterval), static_cast<double>(s.playSpeed),
            s.filePath.c_str());
    return loggedUpdate(statement);
}

bool DataManager::updateScriptTitleOfPlaySettingsFrom(const std::string& oldPath, const std::string& newPath) {
    StatementText statement;
    if (!holdsQuote({oldPath, newPath}))
        statement = format("UPDATE PLAY_SETTINGS SET SCRIPT_TITLE='%s' WHERE SCRIPT_TITLE='%s';", newPath.c_str(),
                           oldPath.c_str());
    return loggedUpdate(statement);
}

bool DataManager::deletePlaySettingsByScriptTitle(const std::string& path) {
    StatementText statement;
    if (!holdsQuote({path})) statement = format("DELETE FROM PLAY_SETTINGS WHERE SCRIPT_TITLE='%s';", path.c_str());
    return silentUpdate(statement);
}

std::optional<std::vector<PlaySettings>> DataManager::findAllPlaySettings() {
    return queryPlaySettings(format("%s ORDER BY ROW;", kSelectPlaySettings));
}

std::optional<PlaySettings> DataManager::findPlaySettingsByScriptTitle(const std::string& path) {
    StatementText statement;
    if (!holdsQuote({path}))
        statement = format("%s WHERE SCRIPT_TITLE='%s' ORDER BY ROW;", kSelectPlaySettings, path.c_str());
    auto rows = queryPlaySettings(statement);
    if (!rows || rows->empty()) return std::nullopt;
    return rows->front();
}

int32_t DataManager::countPlaySettings() {
    int32_t count = -1;
    bool first = true;
    runQuery(std::string("SELECT COUNT(*) FROM PLAY_SETTINGS;"), [&](SQLite::Statement& q) {
        if (first) count = q.getColumn(0).getInt();
        first = false;
    });
    return count;
}

bool DataManager::addActivatorTrigger(const ActivatorTrigger& t) {
    const std::string path = t.filePath.value_or(kAbsentText);
    StatementText statement;
    if (!holdsQuote({t.eventName, path}))
        statement = format(
            "INSERT OR REPLACE INTO ACTIVATOR_TRIGGER (EVENT_NAME, FOR_WHAT, SCRIPT_TITLE) VALUES ('%s', %ld, '%s');",
            t.eventName.c_str(), asLong(t.forWhat), path.c_str());
    return loggedUpdate(statement);
}

bool DataManager::removeActivatorTrigger(const std::string& eventName) {
    StatementText statement;
    if (!holdsQuote({eventName}))
        statement = format("DELETE FROM ACTIVATOR_TRIGGER WHERE EVENT_NAME='%s';", eventName.c_str());
    return loggedUpdate(statement);
}

bool DataManager::removeActivatorTriggerByScriptTitle(const std::string& path) {
    StatementText statement;
    if (!holdsQuote({path}))
        statement = format("DELETE FROM ACTIVATOR_TRIGGER WHERE SCRIPT_TITLE='%s';", path.c_str());
    return silentUpdate(statement);
}

bool DataManager::updateScriptTitleOfActivatorTriggerFrom(const std::string& oldPath, const std::string& newPath) {
    StatementText statement;
    if (!holdsQuote({oldPath, newPath}))
        statement = format("UPDATE ACTIVATOR_TRIGGER SET SCRIPT_TITLE='%s' WHERE SCRIPT_TITLE='%s';",
                           newPath.c_str(), oldPath.c_str());
    return loggedUpdate(statement);
}

std::optional<std::vector<ActivatorTrigger>> DataManager::getActivatorTriggersAll() {
    return queryActivatorTriggers(format("%s ORDER BY ROW;", kSelectActivatorTrigger));
}

std::optional<ActivatorTrigger> DataManager::getActivatorTriggerByEventName(const std::string& eventName) {
    StatementText statement;
    if (!holdsQuote({eventName}))
        statement = format("%s WHERE EVENT_NAME='%s' ORDER BY ROW;", kSelectActivatorTrigger, eventName.c_str());
    return firstActivatorTrigger(statement);
}

std::optional<ActivatorTrigger> DataManager::getActivatorTriggerByScriptTitle(const std::string& path) {
    StatementText statement;
    if (!holdsQuote({path}))
        statement = format("%s WHERE SCRIPT_TITLE='%s' ORDER BY ROW;", kSelectActivatorTrigger, path.c_str());
    return firstActivatorTrigger(statement);
}

std::optional<ActivatorTrigger> DataManager::getActivatorTriggerForControlPanel() {
    return firstActivatorTrigger(format("%s WHERE FOR_WHAT=1;", kSelectActivatorTrigger));
}

std::optional<ActivatorTrigger> DataManager::getActivatorTriggerForStartStopPlaying() {
    return firstActivatorTrigger(format("%s WHERE FOR_WHAT=2;", kSelectActivatorTrigger));
}

}  // namespace tw
