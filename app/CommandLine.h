#pragma once

#include <QString>
#include <QStringList>

// The program's options, read before Qt starts: "--help" and "--version" must
// answer on a machine without a display, and a mistyped option must not open a
// window. Qt's own options ("-platform", "-style", …) are not accepted; their
// environment variables (QT_QPA_PLATFORM, QT_STYLE_OVERRIDE) do the same.
class CommandLine
{
public:
    enum class Action {
        run, // no options: the window (or, when one is running, that one raised)
        snapshot, // "--snapshot DIR"
        toggle, // "--toggle": record, pause or resume in the running instance
        save, // "--save": save the paused recording in the running instance
        help, // "-h" or "--help"
        version, // "--version"
        misuse, // anything else; problem() says what
    };

    // arguments[0] is the program. Read left to right: the first of "--help",
    // "--version" or a mistake decides, as with getopt. "--snapshot" as the last
    // argument names no folder and is deliberately ignored: the program starts as
    // without it, as snapshot mode has always read its trigger.
    [[nodiscard]] static CommandLine parse(const QStringList &arguments);

    [[nodiscard]] Action action() const { return m_action; }
    [[nodiscard]] const QString &snapshotDirectory() const { return m_snapshotDirectory; }
    [[nodiscard]] const QString &problem() const { return m_problem; }
    // The recorder action asked for ("toggle", "save"), empty for none.
    [[nodiscard]] QString actionName() const;

    // What "--help" prints (and a misuse prints to standard error).
    [[nodiscard]] static QString usage();
    // "selvaro-recorder 0.1.0 (build 1)"
    [[nodiscard]] static QString versionLine();

private:
    Action m_action = Action::run;
    QString m_snapshotDirectory;
    QString m_problem;
};
