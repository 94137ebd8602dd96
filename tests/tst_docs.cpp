// Looks that what README.md and the guides show is code that is built and output that is compared.

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

QString read(const QString &path)
{
    QFile file(path);
    return file.open(QFile::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

/// Without indentation and blank lines, so that a part of a function can be shown by itself.
QString flat(const QString &text)
{
    QString result;
    for (const QString &line : text.split(u'\n')) {
        if (const QString trimmed = line.trimmed(); !trimmed.isEmpty())
            result += trimmed + u'\n';
    }
    return result;
}

QString allOf(const QStringList &folders, const QStringList &names)
{
    QString text;
    for (const QString &folder : folders) {
        QDirIterator files(QStringLiteral(ZEL_PROJECT_FOLDER "/") + folder, names, QDir::Files,
                           QDirIterator::Subdirectories);
        while (files.hasNext())
            text += flat(read(files.next())) + u'\f';
    }
    return text;
}

QStringList texts()
{
    QStringList paths;
    for (const char *folder : {ZEL_PROJECT_FOLDER, ZEL_PROJECT_FOLDER "/docs"}) {
        QDirIterator files(QString::fromUtf8(folder), {u"*.md"_s}, QDir::Files);
        while (files.hasNext())
            paths.append(files.next());
    }
    return paths;
}

} // namespace

class DocsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void blocksAreTakenFromWhatIsTested_data()
    {
        QTest::addColumn<QString>("path");
        for (const QString &path : texts())
            QTest::addRow("%s", qPrintable(QFileInfo(path).fileName())) << path;
    }

    void blocksAreTakenFromWhatIsTested()
    {
        QFETCH(const QString, path);
        const QHash<QString, QString> tested{
            {u"cpp"_s, allOf({u"examples"_s, u"docs/snippets"_s, u"tests/consumer"_s}, {u"*.cpp"_s})},
            {u"cmake"_s, allOf({u"tests/consumer"_s}, {u"CMakeLists.txt"_s})},
            {QString(), allOf({u"examples"_s, u"docs/snippets"_s}, {u"expected.txt"_s})},
        };
        static const QRegularExpression block(u"^```(\\w*)\\n(.*?)^```$"_s,
                                              QRegularExpression::MultilineOption
                                                  | QRegularExpression::DotMatchesEverythingOption);
        for (auto blocks = block.globalMatch(read(path)); blocks.hasNext();) {
            const auto match = blocks.next();
            // Commands for a shell are not run here.
            if (match.captured(1) == u"sh")
                continue;
            QVERIFY2(tested.value(match.captured(1)).contains(flat(match.captured(2))), qPrintable(match.captured()));
        }
    }

    void linksLeadSomewhere()
    {
        static const QRegularExpression link(u"\\]\\(([^)#: *]+)(#[^)]*)?\\)"_s);
        for (const QString &path : texts()) {
            for (auto links = link.globalMatch(read(path)); links.hasNext();) {
                const QString target = links.next().captured(1);
                QVERIFY2(QFileInfo::exists(QFileInfo(path).dir().filePath(target)),
                         qPrintable(path + u": "_s + target));
            }
        }
    }
};

QTEST_GUILESS_MAIN(DocsTest)
#include "tst_docs.moc"
