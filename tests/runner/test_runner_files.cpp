#include <cstring>

#include <gtest/gtest.h>
#include <QRandomGenerator>

#include "RunnerHarness.h"
#include "store/SettingsFileCheck.h"

// A --settings that names some other file is refused by every command and left as it was;
// the files that are ours keep working.
namespace {

using Vexlor::Testing::Outcome;
using Vexlor::Testing::RunnerTest;

// As the previous release wrote it: two recordings, one of them a weekly plan's, scheduling
// switched on and off again.
const char OLDER_FILE[] = R"ini([QK]
Scheduler\schedule=@ByteArray(\0\0\0\x2\0\0\0\f\0R\0\x65\0v\0i\0\x65\0w\0\0\0\x3\0\x6\xbe\xc1\xd6\xae\xa8\0\0\0\0\0kI\xd2\0\0\0\0\0\0\0\0\x34\0S\0t\0\x61\0n\0\x64\0u\0p\0 \0(\0\x32\0\x30\0\x33\0\x30\0-\0\x30\0\x33\0-\0\x30\0\x34\0 \0\x30\0\x39\0:\0\x30\0\x30\0)\xff\xff\xff\xff\0\x6\xbe\xfdY\xa1$\0\0\0\0\0\x35\xa4\xe9\0\0\0\0\0)
Scheduler\scheduler_enabled=false

[Runner]
plans="@ByteArray({\"imported\":[],\"plans\":[{\"duration\":\"900000000\",\"exceptions\":[],\"mode\":0,\"placedUntil\":\"1898845200000000\",\"rule\":\"FREQ=WEEKLY\",\"source\":\"\",\"start\":\"2030-03-04T09:00:00\",\"tag\":-1,\"title\":\"Standup\",\"uid\":\"\",\"zone\":\"\"}]})"
)ini";

QByteArray BinaryWithNul() {
    QRandomGenerator random(23);
    QByteArray bytes(512, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random.bounded(256));
    }
    bytes[256] = '\0';
    return bytes;
}

void Write(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
}

struct FileRow {
    const char* name;
    std::optional<QByteArray> bytes;  // none: no file
    bool ours;
    bool writtenNow = false;  // as this program writes it now, in place of `bytes`
};

void PrintTo(const FileRow& row, std::ostream* out) {
    *out << row.name;
}

class SettingsFileTest : public RunnerTest, public testing::WithParamInterface<FileRow> {};

TEST_P(SettingsFileTest, EveryCommandRefusesAFileThatIsNotOursAndLeavesIt) {
    std::optional<QByteArray> bytes = GetParam().bytes;
    if (GetParam().writtenNow) {
        Add({"Kept", "--in", "1h"});
        Add({"Standup", "--in", "2h", "--repeat", "weekdays"});
        ASSERT_EQ(Run({"enable"}).exitCode, 0);
        ASSERT_EQ(Run({"disable"}).exitCode, 0);
        bytes = ReadFile(settingsName);
    }
    const QStringList commands[] = {
        {"list"},
        {"add", "New", "--in", "1h"},
        {"enable"},
        {"clear"},
        {"run", "--until-empty", "--notify", "none", "--no-keep-awake"}};
    for (const QStringList& command : commands) {
        SCOPED_TRACE(command.join(' ').toStdString());
        QFile::remove(SettingsFile());
        if (bytes) {
            Write(SettingsFile(), *bytes);
        }
        const Outcome outcome = Run(command);
        if (GetParam().ours) {
            EXPECT_EQ(outcome.exitCode, 0) << outcome.err.toStdString();
            continue;
        }
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_TRUE(outcome.err.contains(SettingsFile() + " is not a settings file: line "))
            << outcome.err.toStdString();
        EXPECT_EQ(ReadFile(settingsName), *bytes);
    }
    if (GetParam().ours && bytes && !bytes->isEmpty()) {
        Write(SettingsFile(), *bytes);
        const QString listed = Run({"list"}).out;
        EXPECT_TRUE(listed.contains("\"Standup (") && listed.contains("plan \"Standup\""))
            << listed.toStdString();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SettingsFileTest,
    testing::Values(FileRow{"Markdown", "# Notes\n\n- call the dentist\n- *buy* milk\n", false},
                    FileRow{"Json", "{\n  \"schedule\": [],\n  \"enabled\": true\n}\n", false},
                    FileRow{"Binary", BinaryWithNul(), false}, FileRow{"Empty", "", true},
                    FileRow{"Missing", std::nullopt, true}, FileRow{"WrittenNow", "", true, true},
                    FileRow{"OlderRelease", OLDER_FILE, true}),
    [](const testing::TestParamInfo<FileRow>& info) { return std::string(info.param.name); });

// Settings files of ours in the forms QSettings reads, and the first line at fault in others.
TEST(SettingsFileCheck, TakesTheIniFormatWithOurKeysAlone) {
    const struct {
        const char* bytes;
        const char* problem;  // empty: a settings file of ours
    } rows[] = {
        {"\xef\xbb\xbf[QK]\r\nScheduler/schedule=@ByteArray()\r\n; a note\r\n\r\n", ""},
        {"[General]\nQK\\Scheduler\\scheduler_enabled=true\n[Runner]\nplans=", ""},
        {" [QK/Scheduler] \n schedule = x\n", ""},
        {"[QK]\nScheduler\\other=1\n", "line 2 holds the key \"QK/Scheduler/other\""},
        {"[QK]\nschedule=1\n", "line 2 holds the key \"QK/schedule\""},
        {"[Notes]\n", "line 1 is the section [Notes]"},
        {"[QK]\n# Heading\n", "line 2 is neither a section, a key nor a comment"},
        {"[QK\n", "line 1 is neither"},
        {"=1\n", "line 1 is neither"},
        {"[QK]\nScheduler\\schedule=caf\xc3\n", "line 2 is not UTF-8 text"},
        {"\n\nplans\t\x07", "line 3 holds binary data (byte 0x07)"},
    };
    for (const auto& row : rows) {
        const auto problem = Vexlor::ScheduleTool::WhyNotASettingsFile(QByteArray(row.bytes));
        EXPECT_EQ(problem.value_or(QString()).left(static_cast<int>(std::strlen(row.problem))),
                  QString::fromUtf8(row.problem))
            << row.bytes;
        EXPECT_EQ(problem.has_value(), *row.problem != '\0') << row.bytes;
    }
}

// The run keeps its schedule, refuses edits and neither shows nor overwrites the file until
// it is a settings file again.
class ForeignFileTest : public RunnerTest {};

TEST_F(ForeignFileTest, ARunNeverWritesOverAFileThatIsNotOurs) {
    Add({"Due", "--in", "3s", "--for", "1s", "--enable"});
    auto run = Start({"run", "--exec", "true", "--notify", "none", "--no-keep-awake"});
    ASSERT_TRUE(WaitForOutput(*run, "scheduler running", 10000));
    const QByteArray notes = "# Notes\n\n- not a schedule\n";
    Write(SettingsFile(), notes);
    ASSERT_TRUE(WaitForOutput(*run,
                              "settings unreadable, kept the running schedule: " + SettingsFile() +
                                  " is not a settings file",
                              5000));
    for (const QStringList& command :
         {QStringList{"list"}, QStringList{"add", "New", "--in", "1h"}}) {
        const Outcome refused = Run(command);
        EXPECT_EQ(refused.exitCode, 1);
        EXPECT_TRUE(refused.err.contains(SettingsFile() + " is not a settings file"))
            << refused.err.toStdString();
    }
    ASSERT_TRUE(WaitForOutput(*run, "recording finished: \"Due\"", 8000));
    EXPECT_TRUE(WaitForOutput(*run, "settings not saved: " + SettingsFile() + " is not a", 3000));
    EXPECT_EQ(ReadFile(settingsName), notes);

    Write(SettingsFile(), "");
    EXPECT_TRUE(WaitForOutput(*run, "settings saved again", 5000));
    const Outcome listed = Run({"list"});
    EXPECT_EQ(listed.exitCode, 0) << listed.err.toStdString();
    EXPECT_FALSE(listed.out.contains("Due"));
    Stop(*run);
}

}  // namespace
