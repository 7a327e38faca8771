#include <signal.h>

#include <gtest/gtest.h>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QThread>

#include "RunnerHarness.h"

// Each test runs the built program on a settings file of its own in a temporary folder.
namespace {

using Vexlor::Testing::Outcome;
using Vexlor::Testing::ProcessEnded;
using Vexlor::Testing::RunnerTest;

// The environment of each capture command, one line per capture.
const QString WRITE_ENVIRONMENT = QStringLiteral(
    "printf '%s|%s|%s|%s|%s\\n' \"$VEXLOR_TITLE\" \"$VEXLOR_START\" \"$VEXLOR_DURATION_MS\" "
    "\"$VEXLOR_TAG\" \"$VEXLOR_MODE\" >> environment.txt");

TEST_F(RunnerTest, TwoRecordingsRunInOrderAndLeaveTheScheduleEmpty) {
    Add({"First", "--in", "2s", "--for", "1s", "--tag", "7", "--mode", "1"});
    Add({"Second", "--in", "4s", "--for", "1s"});
    ASSERT_EQ(Run({"enable"}).exitCode, 0);

    const Outcome run = Run({"run", "--until-empty", "--exec", WRITE_ENVIRONMENT});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_LT(run.out.indexOf("started: \"First\""), run.out.indexOf("started: \"Second\""));

    const QStringList lines =
        QString::fromUtf8(ReadFile("environment.txt")).split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2) << run.out.toStdString();
    const QStringList first = lines[0].split('|');
    const QStringList second = lines[1].split('|');
    ASSERT_EQ(first.size(), 5);
    ASSERT_EQ(second.size(), 5);
    EXPECT_EQ(first[0], "First");
    EXPECT_EQ(second[0], "Second");
    EXPECT_EQ(first[3], "7");
    EXPECT_EQ(first[4], "1");
    EXPECT_EQ(second[3], "-1");
    EXPECT_EQ(second[4], "0");
    for (const QStringList& capture : {first, second}) {
        // What the observers got: the planned second, less the lateness of the start.
        EXPECT_NEAR(capture[2].toLongLong(), 1000, 150) << capture.join('|').toStdString();
    }
    const QDateTime firstStart = QDateTime::fromString(first[1], Qt::ISODateWithMs);
    const QDateTime secondStart = QDateTime::fromString(second[1], Qt::ISODateWithMs);
    ASSERT_TRUE(firstStart.isValid()) << first[1].toStdString();
    ASSERT_TRUE(secondStart.isValid()) << second[1].toStdString();
    EXPECT_NEAR(firstStart.msecsTo(secondStart), 2000, 500);

    EXPECT_EQ(Run({"list"}).out, QString());
    EXPECT_TRUE(Run({"status"}).out.contains("scheduling: disabled"));
}

TEST_F(RunnerTest, RecordingThatPassedWhileNotRunningIsDroppedUnrun) {
    Add({"Missed", "--in", "1s", "--for", "1s"});
    ASSERT_EQ(Run({"enable"}).exitCode, 0);
    QThread::msleep(2500);

    const Outcome run = Run({"run", "--until-empty", "--exec", "touch ran"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.contains("records dropped: \"Missed\"")) << run.out.toStdString();
    EXPECT_FALSE(run.out.contains("recording started"));
    EXPECT_FALSE(QFile::exists(FilePath("ran")));
    EXPECT_EQ(Run({"list"}).out, QString());
}

TEST_F(RunnerTest, RecordDueDuringACaptureIsDroppedUnrun) {
    Add({"Running", "--in", "1s", "--for", "3s"});
    Add({"Squeezed", "--in", "2s", "--for", "1s", "--allow-overlap"});
    ASSERT_EQ(Run({"enable"}).exitCode, 0);

    // The command outlasts the recording, so the capture ends with its duration.
    const Outcome run = Run({"run", "--until-empty", "--exec", WRITE_ENVIRONMENT + "; sleep 10"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.contains("records dropped: \"Squeezed\"")) << run.out.toStdString();
    EXPECT_FALSE(run.out.contains("records dropped: \"Running\""));
    const QStringList lines =
        QString::fromUtf8(ReadFile("environment.txt")).split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 1);
    EXPECT_TRUE(lines[0].startsWith("Running|"));
}

TEST_F(RunnerTest, LeadTimeStartsTheCaptureEarlyWithItsFullDuration) {
    Add({"Ahead", "--in", "3s", "--for", "1s"});
    ASSERT_EQ(Run({"enable"}).exitCode, 0);

    const Outcome run = Run({"run", "--until-empty", "--lead", "1s", "--exec",
                             WRITE_ENVIRONMENT + " && date +%s%3N > started.txt"});
    EXPECT_EQ(run.exitCode, 0);
    const QStringList capture = QString::fromUtf8(ReadFile("environment.txt")).trimmed().split('|');
    ASSERT_EQ(capture.size(), 5);
    EXPECT_EQ(capture[2], "1000");  // requested before its start: nothing is cut
    const QDateTime plannedStart = QDateTime::fromString(capture[1], Qt::ISODateWithMs);
    const long long startedMs = ReadFile("started.txt").trimmed().toLongLong();
    EXPECT_NEAR(plannedStart.toMSecsSinceEpoch() - startedMs, 1000, 300);
}

TEST_F(RunnerTest, EditingCommandsUseTheFileNamedInTheEnvironment) {
    settingsFromEnvironment = true;
    Add({"Early", "--in", "1h", "--for", "10m", "--tag", "3", "--mode", "2"});
    Add({"Late", "--in", "2h"});

    const QString status = Run({"status"}).out;
    EXPECT_TRUE(status.contains("scheduling: disabled"));
    EXPECT_TRUE(status.contains("next: \"Early\"")) << status.toStdString();
    EXPECT_EQ(Run({"remove", "Missing"}).exitCode, 1);
    EXPECT_EQ(Run({"remove", "Early"}).exitCode, 0);

    const QStringList listed = Run({"list"}).out.split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(listed.size(), 1);
    EXPECT_TRUE(listed[0].contains("\"Late\"  tag -1  mode 0")) << listed[0].toStdString();
    EXPECT_TRUE(QFile::exists(SettingsFile()));
}

// The one JSON document on standard output.
QJsonValue JsonOf(const Outcome& outcome) {
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.toStdString();
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(outcome.out.toUtf8(), &error);
    EXPECT_TRUE(document.isObject())
        << error.errorString().toStdString() << outcome.out.toStdString();
    return document.object();
}

// An object with at least `fields`.
void ExpectFields(const QJsonValue& value, const QStringList& fields) {
    ASSERT_TRUE(value.isObject()) << QJsonDocument(QJsonObject{{"value", value}}).toJson().data();
    for (const QString& field : fields) {
        EXPECT_TRUE(value.toObject().contains(field)) << field.toStdString();
    }
}

// A moment as local time with its offset, and the same moment in UTC.
void ExpectTimes(const QJsonValue& object, const QString& name) {
    const QString local = object[name].toString();
    const QString utc = object[name + "Utc"].toString();
    EXPECT_TRUE(local.endsWith("+01:00") || local.endsWith("+02:00")) << local.toStdString();
    EXPECT_TRUE(utc.endsWith('Z')) << utc.toStdString();
    EXPECT_EQ(QDateTime::fromString(local, Qt::ISODateWithMs),
              QDateTime::fromString(utc, Qt::ISODateWithMs));
}

const QStringList RECORD_FIELDS{"title", "start", "startUtc", "durationMs", "tag", "mode"};

// What only the active run knows reaches `status`; `stop` ends the capture and the engine
// goes on to the next record.
TEST_F(RunnerTest, StatusAsksTheRunAndStopEndsTheCaptureButNotTheSchedule) {
    environmentChanges["TZ"] = "Europe/Berlin";
    const Outcome noRun = Run({"stop"});
    EXPECT_EQ(noRun.exitCode, 1);
    EXPECT_TRUE(noRun.err.contains("no run is active")) << noRun.err.toStdString();
    Add({"Long one", "--in", "1s", "--for", "1h", "--tag", "4"});
    Add({"Next", "--in", "6s", "--for", "1s", "--allow-overlap"});
    Add({"Later", "--in", "4h", "--for", "1m", "--enable"});
    auto run = Start({"run", "--exec", "sleep 600", "--notify", "console"});
    QString seen;
    ASSERT_TRUE(WaitForOutput(*run, seen, "started: \"Long one\"", 10000)) << seen.toStdString();

    EXPECT_TRUE(Run({"status"}).out.contains("  began ")) << "and how it goes";
    const QJsonObject recording = JsonOf(Run({"status", "--json"}))["run"]["recording"].toObject();
    ExpectFields(recording, RECORD_FIELDS + QStringList{"began", "timeLeftMs", "file", "command"});
    EXPECT_EQ(recording["title"], "Long one");
    EXPECT_EQ(recording["tag"], 4);
    EXPECT_EQ(recording["command"], "sleep 600");
    EXPECT_EQ(recording["durationMs"], 3600000);
    EXPECT_GT(recording["timeLeftMs"].toDouble(), 3500000);
    ExpectTimes(recording, "began");

    const Outcome stopped = Run({"stop"});
    EXPECT_EQ(stopped.exitCode, 0) << stopped.err.toStdString();
    EXPECT_TRUE(stopped.out.contains("stopped \"Long one\"")) << stopped.out.toStdString();
    ASSERT_TRUE(WaitForOutput(*run, seen, "finished: \"Next\"", 15000)) << seen.toStdString();
    EXPECT_TRUE(seen.contains("finished: \"Long one\", stopped")) << seen.toStdString();
    const Outcome idle = Run({"stop"});
    EXPECT_EQ(idle.exitCode, 1);
    EXPECT_TRUE(idle.err.contains("nothing is being recorded")) << idle.err.toStdString();

    // The notice for "Later" comes with the notice helper's next check, within 10 s.
    ASSERT_TRUE(WaitForOutput(*run, seen, "Notice", 15000)) << seen.toStdString();
    const QJsonValue live = JsonOf(Run({"status", "--json"}));
    ExpectFields(live, {"enabled", "next", "run"});
    ExpectFields(live["run"], {"recording", "notices", "nextCapture"});
    EXPECT_TRUE(live["run"]["recording"].isNull());
    ExpectFields(live["run"]["notices"][0], {"title", "text"});
    ExpectFields(live["run"]["nextCapture"], {"title", "at", "atUtc", "inMs"});
    EXPECT_EQ(live["run"]["nextCapture"]["title"], "Later");
    const QJsonArray records = JsonOf(Run({"list", "--json"}))["records"].toArray();
    ASSERT_EQ(records.size(), 1);
    ExpectFields(records[0], RECORD_FIELDS);
    ExpectTimes(records[0], "start");
    EXPECT_EQ(records[0]["durationMs"], 60000);
    Stop(*run);

    const QJsonValue filed = JsonOf(Run({"status", "--json"}));
    EXPECT_TRUE(filed["run"].isNull());
    ExpectFields(filed["next"], RECORD_FIELDS + QStringList{"inMs"});
    EXPECT_NEAR(filed["next"]["inMs"].toDouble(), 4 * 3600000, 60000);
    EXPECT_EQ(JsonOf(Run({"list", "--json"}))["records"], QJsonArray(records));
}

// Refused by the schedule; what the command line refuses is in the parse table.
struct RefusedAdd {
    const char* name;
    QStringList arguments;
    const char* named;  // what the message must name
};

void PrintTo(const RefusedAdd& row, std::ostream* out) {
    *out << row.name;
}

class RefusedAddTest : public RunnerTest, public testing::WithParamInterface<RefusedAdd> {};

TEST_P(RefusedAddTest, LeavesTheSettingsFileAsItWas) {
    Add({"Planned", "--in", "1h", "--for", "30m", "--tag", "3"});
    const QByteArray before = ReadFile("settings.ini");
    ASSERT_FALSE(before.isEmpty());

    const Outcome refused = Run(QStringList{"add"} + GetParam().arguments);
    EXPECT_EQ(refused.exitCode, 1) << refused.err.toStdString();
    EXPECT_TRUE(refused.err.contains(GetParam().named)) << refused.err.toStdString();
    EXPECT_EQ(ReadFile("settings.ini"), before);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, RefusedAddTest,
    testing::Values(
        RefusedAdd{"DuplicateTitle", {"Planned", "--in", "5h"}, "\"Planned\""},
        RefusedAdd{"Overlap", {"Other", "--in", "1h10m", "--for", "5m"}, "\"Planned\""},
        RefusedAdd{"AlreadyOver", {"Past", "--at", "2020-01-01 10:00", "--for", "1h"}, "\"Past\""}),
    [](const testing::TestParamInfo<RefusedAdd>& info) { return std::string(info.param.name); });

TEST_F(RunnerTest, CommandHelpGoesToStandardOutput) {
    const Outcome help = Run({"run", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.contains("--capture screen|simulate")) << help.out.toStdString();
}

// Through a shell, which passes the bytes on as they are.
TEST_F(RunnerTest, TitleThatIsNotUtf8IsRefusedAsGiven) {
    Add({"Planned", "--in", "1h"});
    const QByteArray before = ReadFile("settings.ini");
    QProcess process;
    process.start("/bin/sh",
                  {"-c", "exec \"$0\" --settings \"$1\" add \"$(printf 'bad\\377')\" --in 2h",
                   VEXLOR_SCHEDULE_PROGRAM, SettingsFile()});
    const Outcome refused = Finish(process);
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_TRUE(refused.err.contains("argument 4 is not valid UTF-8: \"bad\\xff\""))
        << refused.err.toStdString();
    EXPECT_EQ(ReadFile("settings.ini"), before);
}

TEST_F(RunnerTest, AllowOverlapKeepsBothRecords) {
    Add({"Planned", "--in", "1h", "--for", "30m"});
    Add({"Beside", "--in", "1h10m", "--for", "5m", "--allow-overlap"});
    EXPECT_EQ(Run({"list"}).out.count('\n'), 2);
}

TEST_F(RunnerTest, AddFromAnotherProcessReachesTheRunningScheduler) {
    Add({"Later", "--in", "1h"});
    ASSERT_EQ(Run({"enable"}).exitCode, 0);
    auto run = Start({"run", "--exec", "printf '%s' \"$VEXLOR_TITLE\" > picked.txt"});
    QString seen;
    ASSERT_TRUE(WaitForOutput(*run, seen, "scheduler running", 10000)) << seen.toStdString();

    Add({"Soon", "--in", "2s", "--for", "1s"});
    QElapsedTimer sinceAdd;
    sinceAdd.start();
    ASSERT_TRUE(WaitForOutput(*run, seen, "settings changed", 3000)) << seen.toStdString();
    EXPECT_LT(sinceAdd.elapsed(), 1000);
    ASSERT_TRUE(WaitForOutput(*run, seen, "recording finished: \"Soon\"", 8000))
        << seen.toStdString();
    EXPECT_EQ(ReadFile("picked.txt"), QByteArray("Soon"));

    ::kill(static_cast<pid_t>(run->processId()), SIGTERM);
    EXPECT_EQ(Finish(*run).exitCode, 0);
    EXPECT_TRUE(Run({"list"}).out.contains("\"Later\""));
}

TEST_F(RunnerTest, SecondRunOnTheSameScheduleIsRefused) {
    Add({"Later", "--in", "1h"});
    auto run = Start({"run"});
    QString seen;
    ASSERT_TRUE(WaitForOutput(*run, seen, "scheduler running", 10000)) << seen.toStdString();

    const Outcome second = Run({"run"});
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_TRUE(second.err.contains("another run")) << second.err.toStdString();

    ::kill(static_cast<pid_t>(run->processId()), SIGTERM);
    EXPECT_EQ(Finish(*run).exitCode, 0);
}

TEST_F(RunnerTest, SigtermDuringCaptureEndsTheCommandAndExitsZero) {
    Add({"Long", "--in", "1s", "--for", "30s"});
    ASSERT_EQ(Run({"enable"}).exitCode, 0);
    auto run = Start({"run", "--exec", "sleep 30 & echo $! > child.pid; wait"});
    QString seen;
    ASSERT_TRUE(WaitForOutput(*run, seen, "recording started: \"Long\"", 10000))
        << seen.toStdString();
    QElapsedTimer clock;
    clock.start();
    while (ReadFile("child.pid").trimmed().isEmpty() && clock.elapsed() < 5000) {
        QThread::msleep(20);
    }
    const long long child = ReadFile("child.pid").trimmed().toLongLong();
    ASSERT_GT(child, 0);
    ASSERT_FALSE(ProcessEnded(child));

    ::kill(static_cast<pid_t>(run->processId()), SIGTERM);
    const Outcome stopped = Finish(*run, 10000);
    EXPECT_EQ(stopped.exitCode, 0) << stopped.err.toStdString();
    EXPECT_TRUE((seen + stopped.out).contains("recording finished: \"Long\""))
        << stopped.out.toStdString();
    clock.restart();
    while (!ProcessEnded(child) && clock.elapsed() < 3000) {
        QThread::msleep(20);
    }
    EXPECT_TRUE(ProcessEnded(child));
}

TEST_F(RunnerTest, ShellMetacharactersInTheTitleReachTheCommandVerbatim) {
    const QString title = QStringLiteral("$(touch x); \"quotes\" `touch y` 'z'");
    Add({title, "--in", "1s", "--for", "1s"});
    ASSERT_EQ(Run({"enable"}).exitCode, 0);

    const Outcome run =
        Run({"run", "--until-empty", "--exec", "printf '%s' \"$VEXLOR_TITLE\" > title.txt"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(QString::fromUtf8(ReadFile("title.txt")), title);
    EXPECT_FALSE(QFile::exists(FilePath("x")));
    EXPECT_FALSE(QFile::exists(FilePath("y")));
}

}  // namespace
