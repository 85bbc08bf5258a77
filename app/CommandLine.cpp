#include "app/CommandLine.h"

#include "BuildInfo.h"

CommandLine CommandLine::parse(const QStringList &arguments)
{
    CommandLine line;
    const auto misuse = [&line](const QString &problem) {
        line.m_action = Action::misuse;
        line.m_problem = problem;
        return line;
    };
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString &argument = arguments.at(i);
        if (argument == QLatin1String("-h") || argument == QLatin1String("--help")) {
            line.m_action = Action::help;
            return line;
        }
        if (argument == QLatin1String("--version")) {
            line.m_action = Action::version;
            return line;
        }
        if (argument == QLatin1String("--snapshot")) {
            if (i + 1 == arguments.size())
                break;
            // The first "--snapshot" wins, as in Snapshot::requestedDirectory; the first
            // action wins over later ones.
            if (line.m_action == Action::run) {
                line.m_action = Action::snapshot;
                line.m_snapshotDirectory = arguments.at(i + 1);
            }
            ++i;
            continue;
        }
        if (argument == QLatin1String("--toggle") || argument == QLatin1String("--save")) {
            if (line.m_action == Action::run)
                line.m_action = argument == QLatin1String("--save") ? Action::save : Action::toggle;
            continue;
        }
        if (argument.startsWith(QLatin1Char('-')))
            return misuse(QStringLiteral("unknown option '%1'").arg(argument));
        return misuse(QStringLiteral("unexpected argument '%1'").arg(argument));
    }
    return line;
}

QString CommandLine::actionName() const
{
    return m_action == Action::toggle ? QStringLiteral("toggle")
        : m_action == Action::save    ? QStringLiteral("save")
                                      : QString();
}

QString CommandLine::usage()
{
    return QStringLiteral("Usage: selvaro-recorder [--toggle | --save | --snapshot DIR]\n"
                          "\n"
                          "Records what the computer plays together with the microphone and sends the\n"
                          "recording to your Selvaro notes. Without options it opens its window, or\n"
                          "raises the one already open.\n"
                          "\n"
                          "Options:\n"
                          "  --toggle        record, pause or resume in the running window (started if\n"
                          "                  needed); bind it to a key to record from anywhere\n"
                          "  --save          save and send the paused recording\n"
                          "  --snapshot DIR  render every screen as a PNG file into DIR, then exit\n"
                          "  --version       print the version and exit\n"
                          "  -h, --help      print this help and exit\n"
                          "\n"
                          "See selvaro-recorder(1) for where recordings are kept and how to read the log.\n");
}

QString CommandLine::versionLine()
{
    return QStringLiteral("selvaro-recorder %1 (build %2)")
        .arg(QLatin1String(BuildInfo::shortVersion), QLatin1String(BuildInfo::buildNumber));
}
