#include "support/Waiting.h"

#include <zel/common/Error.h>
#include <zel/common/ErrorCancelable.h>
#include <zel/common/UnifiedError.h>
#include <zel/common/Warnings.h>

#include <QHashSeed>
#include <QMetaType>
#include <QPointer>
#include <QSet>
#include <QSignalSpy>
#include <QTest>

#include <type_traits>

using namespace Qt::StringLiterals;
using namespace zel;

static_assert(std::is_same_v<std::underlying_type_t<ErrorCode>, int>);
static_assert(NoError == 0 && GeneralError == 1 && Canceled == 20 && Timeout == 27);

namespace {

Error withWarnings(Error error, const QStringList &warnings)
{
    error.addWarnings(warnings);
    return error;
}

class Cancelee : public ErrorCancelable {
public:
    void cancel() override { Q_EMIT canceled(); }
};

class LoudWarnings : public Warnings {
protected:
    void addWarningInternal(const QString &warning) override { Warnings::addWarningInternal(warning + u'!'); }
    void resetWarningsInternal(const QList<QString> &warnings) override
    {
        clearWarnings();
        for (const QString &warning : warnings)
            addWarning(warning);
    }
};

} // namespace

class CommonTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

    void codeDecidesWhatIsAnError()
    {
        QVERIFY(!Error().hasError());
        QVERIFY(!Error(NoError, u"fine"_s).hasError());
        QVERIFY(!withWarnings(Error(), {u"remark"_s}).hasError());
        QVERIFY(Error(Canceled).hasError());
        QVERIFY(Error(ErrorCode(-5)).hasError());

        Error error = withWarnings(Error(GeneralError, u"broken"_s), {u"remark"_s});
        error.ecatch("f()", "f.cpp", 3);
        error = Timeout;
        QVERIFY(error.equals(Timeout));
        QVERIFY(error.equals(Error(Timeout)));
        QVERIFY(error.places().isEmpty());
    }

    void equalityIgnoresPlaces_data()
    {
        QTest::addColumn<Error>("left");
        QTest::addColumn<Error>("right");
        QTest::addColumn<bool>("equal");

        const Error plain(GeneralError, u"x"_s);
        Error caught = plain;
        caught.ecatch("f()", "f.cpp", 3);
        QTest::newRow("places") << plain << caught << true;
        QTest::newRow("no error, two ways") << Error() << Error(NoError) << true;
        QTest::newRow("code") << plain << Error(Timeout, u"x"_s) << false;
        QTest::newRow("text") << plain << Error(GeneralError, u"y"_s) << false;
        QTest::newRow("own text and default text") << Error(Canceled) << Error(Canceled, u"Canceled"_s) << false;
        QTest::newRow("warnings") << plain << withWarnings(plain, {u"w"_s}) << false;
        QTest::newRow("order of warnings")
            << withWarnings(plain, {u"v"_s, u"w"_s}) << withWarnings(plain, {u"w"_s, u"v"_s}) << false;
    }

    void equalityIgnoresPlaces()
    {
        QFETCH(Error, left);
        QFETCH(Error, right);
        QFETCH(bool, equal);
        QCOMPARE(left.equals(right), equal);
        QCOMPARE(left == right, equal);
        QCOMPARE(QVariant::fromValue(left) == QVariant::fromValue(right), equal);
        QCOMPARE(QSet<Error>({left, right}).size(), equal ? 1 : 2);
        if (equal)
            QCOMPARE(qHash(left, 7), qHash(right, 7));
    }

    void ecatchNotesPlacesInThisValueOnly()
    {
        Error original(GeneralError, u"x"_s);
        Error copy = original;
        QCOMPARE(&copy.ecatch("first()", "a.cpp", 1), &copy);
        copy.ecatch("second()", "b.cpp", 2);
        QCOMPARE(copy.code(), GeneralError);
        QCOMPARE(copy.places().size(), 2);
        QCOMPARE(copy.places().first().function, u"first()"_s);
        QCOMPARE(copy.places().last().line, 2);
        QVERIFY(original.places().isEmpty());
    }

    void debugFormNamesTheError_data()
    {
        QTest::addColumn<Error>("error");
        QTest::addColumn<QStringList>("pieces");
        QTest::newRow("text") << Error(Canceled, u"stop it"_s) << QStringList{u"Canceled"_s, u"20"_s, u"stop it"_s};
        QTest::newRow("default text") << Error(Timeout)
                                      << QStringList{u"Timeout"_s, u"27"_s, Error(Timeout).displayText()};
        QTest::newRow("success") << Error() << QStringList{u"NoError"_s, u"0"_s};
        QTest::newRow("no such code") << Error(ErrorCode(4711), u"own"_s) << QStringList{u"4711"_s, u"own"_s};
        QTest::newRow("warnings") << withWarnings(Error(), {u"remark"_s}) << QStringList{u"remark"_s};
        Error caught(GeneralError);
        caught.ecatch("work()", "work.cpp", 815);
        QTest::newRow("places") << caught << QStringList{u"GeneralError"_s, u"work()"_s, u"work.cpp"_s, u"815"_s};
    }

    void debugFormNamesTheError()
    {
        QFETCH(Error, error);
        QFETCH(QStringList, pieces);
        QString line;
        QDebug(&line) << error << u"quoted"_s << 5;
        for (const QString &piece : pieces)
            QVERIFY2(line.contains(piece), qPrintable(line));
        // The stream is as it was: blanks between the pieces, strings in quotes.
        QVERIFY2(line.trimmed().endsWith(u" \"quoted\" 5"), qPrintable(line));

        QMetaType type = QMetaType::fromType<Error>();
        QString throughMetaType;
        QDebug stream(&throughMetaType);
        QVERIFY(type.debugStream(stream, &error));
        QVERIFY(line.startsWith(throughMetaType.trimmed()));
    }

    void metaTypeIsFoundByBothNames()
    {
        const QMetaType type = QMetaType::fromType<Error>();
        QCOMPARE(QMetaType::fromName("Err"), type);
        QCOMPARE(QMetaType::fromName("zel::Error"), type);
        QVERIFY(type.isEqualityComparable());
        QVERIFY(!type.isOrdered());
        QVERIFY(!type.hasRegisteredDataStreamOperators());
    }

    void unifiedErrorDoesNotDependOnOrder_data()
    {
        QTest::addColumn<QList<Error>>("errors");
        QTest::addColumn<Error>("unified");

        const Error stop(Canceled, u"Canceled"_s);
        const Error disk(WriteError, u"disk full"_s);
        const Error net(ConnectionError, u"no line"_s);
        QTest::newRow("nothing") << QList<Error>() << Error();
        QTest::newRow("only successes") << QList<Error>{Error(), withWarnings(Error(), {u"w"_s})} << Error();
        QTest::newRow("one") << QList<Error>{Error(), withWarnings(disk, {u"w"_s})} << withWarnings(disk, {u"w"_s});
        QTest::newRow("failure beside cancellations") << QList<Error>{stop, disk, Error(Canceled)} << disk;
        QTest::newRow("one cancellation") << QList<Error>{stop, Error()} << stop;
        QTest::newRow("cancellations") << QList<Error>{stop, Error(Canceled, u"by user"_s), Error(Canceled)}
                                       << Error(Canceled, u"Canceled\nby user"_s);
        QTest::newRow("common code") << QList<Error>{Error(WriteError, u"b"_s), Error(WriteError, u"a"_s)}
                                     << Error(WriteError, u"a\nb"_s);
        QTest::newRow("text ordered by code first")
            << QList<Error>{Error(WriteError, u"a"_s), Error(ReadError, u"z"_s), Error(ReadError, u"b"_s)}
            << Error(GeneralError, u"b\nz\na"_s);
        QTest::newRow("same text twice, one without")
            << QList<Error>{Error(ReadError, u"x"_s), Error(WriteError, u"x"_s), Error(Timeout)}
            << Error(GeneralError, u"x"_s);
        QTest::newRow("warnings") << QList<Error>{withWarnings(net, {u"v"_s, u"w"_s}), withWarnings(disk, {u"u"_s})}
                                  << withWarnings(Error(GeneralError, u"disk full\nno line"_s),
                                                  {u"u"_s, u"v"_s, u"w"_s});
    }

    void unifiedErrorDoesNotDependOnOrder()
    {
        QFETCH(QList<Error>, errors);
        QFETCH(Error, unified);
        for (int round = 0; round < 20; ++round) {
            QHashSeed::resetRandomGlobalSeed();
            QCOMPARE(UnifiedError::computeUnifiedError(QSet<Error>(errors.begin(), errors.end())), unified);
            QCOMPARE(UnifiedError::computeUnifiedError(QSet<Error>(errors.rbegin(), errors.rend())), unified);
        }
    }

    void warningsReachTheListThroughTheHooks()
    {
        LoudWarnings warnings;
        warnings.addWarning(u"a"_s);
        QCOMPARE(warnings.warnings(), QStringList{u"a!"_s});
        warnings.resetWarnings({u"b"_s, u"c"_s});
        QCOMPARE(warnings.warnings(), QStringList({u"b!"_s, u"c!"_s}));
        warnings.clearWarnings();
        QVERIFY(!warnings.hasWarnings());
    }

    void canceledStatusFollowsSignalAndError()
    {
        Cancelee object;
        QVERIFY(!object.isCanceled());
        object.setCanceled(true);
        QVERIFY(object.isCanceled());
        object.setCanceled(false);
        QVERIFY(!object.isCanceled());

        object.cancel();
        QVERIFY(object.isCanceled());
        object.setError(Error(GeneralError, u"unified"_s));
        QVERIFY(object.isCanceled());
        object.setError(Error());
        QVERIFY(!object.isCanceled());

        object.setError(Error(Canceled));
        QVERIFY(object.isCanceled());
        object.setCanceled(false);
        object.setError(Error(GeneralError));
        QVERIFY(!object.isCanceled());
    }

    void everySetErrorIsReported()
    {
        Cancelee object;
        QVERIFY(!object.hasError());
        QSignalSpy spy(&object, &ErrorCancelable::errorChanged);
        object.setError(Error(GeneralError, u"x"_s));
        object.setError(object.error());
        QCOMPARE(spy.size(), 2);
        QCOMPARE(spy.last().first().value<Error>(), Error(GeneralError, u"x"_s));
    }

    void handlerMayDeleteTheObject()
    {
        QPointer<Cancelee> object = new Cancelee;
        connect(object, &ErrorCancelable::errorChanged, this, [&] { delete object; });
        const Error error(Canceled);
        object->setError(error);
        QVERIFY(!object);

        object = new Cancelee;
        connect(object, &ErrorCancelable::canceled, this, [&] { delete object; });
        object->cancel();
        QVERIFY(!object);
    }
};

QTEST_GUILESS_MAIN(CommonTest)
#include "tst_common.moc"
