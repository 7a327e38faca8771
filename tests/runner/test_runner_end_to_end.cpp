#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>

#include "RunnerHarness.h"

// Each test runs the built program on a settings file of its own in a temporary folder.
namespace {

using Vexlor::Testing::Outcome;
using Vexlor::Testing::RunnerTest;

// The environment of each capture command, one line per capture.
const QString WRITE_ENVIRONMENT = QStringLiteral(
    "printf '%s|%s|%s|%s|%s\\n' \"$VEXLOR_TITLE\" \"$VEXLOR_START\" \"$VEXLOR_DURATION_MS\" "
    "\"$VEXLOR_TAG\" \"$VEXLOR_MODE\" >> environment.txt");

// The settings file comes from the environment here; the title is one that a shell would
// expand if the runner ever let one read it. The command outlasts each recording, so each
// capture ends with its duration. Recordings back to back are all made; one within another
// is not, one that overlaps the end of another begins when that ends.
TEST_F(RunnerTest, RecordingsRunInOrderWithTheirValuesBackToBackOrLateAndLeaveTheScheduleEmpty) {
    settingsFromEnvironment = true;
    const QString title = QStringLiteral("$(touch x); \"quotes\" `touch y` 'z'");
    // Whole seconds, far enough ahead for the commands before the run, also in a sanitizer
    // build.
    const qint64 base = QDateTime::currentSecsSinceEpoch() + 6;
    const auto at = [base](int second) {
        return QDateTime::fromSecsSinceEpoch(base + second).toString("yyyy-MM-dd HH:mm:ss");
    };
    Add({"First", "--at", at(0), "--for", "3s", "--tag", "7", "--mode", "1"});
    Add({"Squeezed", "--at", at(1), "--for", "1s", "--allow-overlap"});
    Add({"Next", "--at", at(3), "--for", "1s"});
    Add({title, "--at", at(4), "--for", "2s"});
    Add({"Late", "--at", at(5), "--for", "2s", "--allow-overlap", "--enable"});
    ASSERT_TRUE(QFile::exists(SettingsFile()));
    const QString status = Run({"status"}).out;
    EXPECT_TRUE(status.contains("next: \"First\"")) << status.toStdString();
    const QStringList listed = Run({"list"}).out.split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(listed.size(), 5);
    EXPECT_TRUE(listed[0].contains("\"First\"  tag 7  mode 1")) << listed[0].toStdString();

    const Outcome run = Run({"run", "--until-empty", "--exec", WRITE_ENVIRONMENT + "; sleep 10"});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_FALSE(run.out.contains("records dropped")) << run.out.toStdString();
    EXPECT_TRUE(run.out.contains("not recorded: \"Squeezed\"")) << run.out.toStdString();
    const QRegularExpression late("recording started: \"Late\", [^\n]*\\(began late: ");
    EXPECT_TRUE(run.out.contains(late)) << run.out.toStdString();
    const QStringList lines =
        QString::fromUtf8(ReadFile("environment.txt")).split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 4) << run.out.toStdString();
    QList<QStringList> fields;
    for (const QString& line : lines) {
        fields << line.split('|');
    }
    EXPECT_EQ(fields[0].mid(0, 1) + fields[0].mid(3), (QStringList{"First", "7", "1"}));
    EXPECT_EQ(fields[2].mid(0, 1) + fields[2].mid(3), (QStringList{title, "-1", "0"}));
    EXPECT_FALSE(QFile::exists(FilePath("x")) || QFile::exists(FilePath("y")));
    const QDateTime firstStart = QDateTime::fromString(fields[0].value(1), Qt::ISODateWithMs);
    // Title, planned length and start after the first's: the start is the planned one, the
    // length what was left of it when the capture began.
    const std::vector<std::tuple<QString, long long, long long>> expected{
        {"First", 3000, 0}, {"Next", 1000, 3000}, {title, 2000, 4000}, {"Late", 1000, 6000}};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const auto& [name, duration, offset] = expected[i];
        EXPECT_EQ(fields[i].value(0), name) << lines.join('\n').toStdString();
        const long long left = fields[i].value(2).toLongLong();
        EXPECT_TRUE(left <= duration && left > duration - 700) << name.toStdString() << left;
        const QDateTime start = QDateTime::fromString(fields[i].value(1), Qt::ISODateWithMs);
        EXPECT_EQ(firstStart.msecsTo(start), offset) << name.toStdString();
    }

    EXPECT_EQ(Run({"list"}).out, QString());
    EXPECT_TRUE(Run({"status"}).out.contains("scheduling: disabled"));
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
    ASSERT_TRUE(WaitForOutput(*run, "started: \"Long one\"", 10000));

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
    ASSERT_TRUE(WaitForOutput(*run, "finished: \"Next\"", 15000));
    EXPECT_TRUE(seen.contains("finished: \"Long one\", stopped")) << seen.toStdString();
    const Outcome idle = Run({"stop"});
    EXPECT_EQ(idle.exitCode, 1);
    EXPECT_TRUE(idle.err.contains("nothing is being recorded")) << idle.err.toStdString();

    // The notice for "Later" comes with the notice helper's next check, within 10 s.
    ASSERT_TRUE(WaitForOutput(*run, "Notice", 15000));
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

// Refused by the schedule (what the command line refuses is in the parse table), and a title
// that is not UTF-8 passed on by a shell as it is.
TEST_F(RunnerTest, RefusedAddsLeaveTheSettingsFileAsItWas) {
    Add({"Planned", "--in", "1h", "--for", "30m", "--tag", "3"});
    const QByteArray before = ReadFile("settings.ini");
    ASSERT_FALSE(before.isEmpty());
    const struct {
        QStringList arguments;
        const char* named;  // what the message must name
    } rows[] = {{{"Planned", "--in", "5h"}, "\"Planned\""},
                {{"Other", "--in", "1h10m", "--for", "5m"}, "\"Planned\""},
                {{"Past", "--at", "2020-01-01 10:00", "--for", "1h"}, "\"Past\""}};
    for (const auto& row : rows) {
        const Outcome refused = Run(QStringList{"add"} + row.arguments);
        EXPECT_EQ(refused.exitCode, 1) << refused.err.toStdString();
        EXPECT_TRUE(refused.err.contains(row.named)) << refused.err.toStdString();
        EXPECT_EQ(ReadFile("settings.ini"), before) << row.named;
    }
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

TEST_F(RunnerTest, CommandHelpGoesToStandardOutput) {
    const Outcome help = Run({"run", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.contains("--capture screen|simulate")) << help.out.toStdString();
}

}  // namespace
