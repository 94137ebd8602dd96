#include "support/Rows.h"
#include "support/Waiting.h"

#include <zel/common/Error.h>
#include <zel/common/ErrorCancelable.h>
#include <zel/common/UnifiedError.h>

#include <QHashSeed>
#include <QPointer>
#include <QSet>
#include <QSignalSpy>

#include <tuple>
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

using Comparison = std::tuple<Error, Error, bool>;
struct Unification {
    QList<Error> errors;
    Error unified;
};

} // namespace

class CommonTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

    void equalityIgnoresPlaces_data()
    {
        const Error plain(GeneralError, u"x"_s);
        Error caught = plain;
        caught.ecatch("f()", "f.cpp", 3);
        const auto warned = [&](const QStringList &warnings) { return withWarnings(plain, warnings); };
        addRows<Comparison>({
            {"places", {plain, caught, true}},
            {"code", {plain, Error(Timeout, u"x"_s), false}},
            {"text", {plain, Error(GeneralError, u"y"_s), false}},
            {"own text and default text", {Error(Canceled), Error(Canceled, u"Canceled"_s), false}},
            {"order of warnings", {warned({u"v"_s, u"w"_s}), warned({u"w"_s, u"v"_s}), false}},
        });
    }

    void equalityIgnoresPlaces()
    {
        QFETCH(const Comparison, row);
        const auto &[left, right, equal] = row;
        QCOMPARE(left == right, equal);
        QCOMPARE(QVariant::fromValue(left) == QVariant::fromValue(right), equal);
        QCOMPARE(QSet<Error>({left, right}).size(), equal ? 1 : 2);
    }

    void unifiedErrorDoesNotDependOnOrder_data()
    {
        const Error stop(Canceled, u"Canceled"_s), disk(WriteError, u"disk full"_s), net(ConnectionError, u"no line"_s);
        const Error readX(ReadError, u"x"_s), readY(ReadError, u"y"_s), writeA(WriteError, u"a"_s),
            writeX(WriteError, u"x"_s);
        const auto warned = [](const Error &error, const QStringList &list) { return withWarnings(error, list); };
        addRows<Unification>({
            {"nothing", {{}, Error()}},
            {"only successes", {{Error(), warned(Error(), {u"w"_s})}, Error()}},
            {"one", {{Error(), warned(disk, {u"w"_s})}, warned(disk, {u"w"_s})}},
            {"failure beside cancellations", {{stop, disk, Error(Canceled)}, disk}},
            {"cancellations",
             {{stop, Error(Canceled, u"user"_s), Error(Canceled)}, Error(Canceled, u"Canceled\nuser"_s)}},
            {"common code", {{writeX, writeA}, Error(WriteError, u"a\nx"_s)}},
            {"text ordered by code first", {{writeA, readY, readX}, Error(GeneralError, u"x\ny\na"_s)}},
            {"same text twice, one without", {{readX, writeX, Error(Timeout)}, Error(GeneralError, u"x"_s)}},
            {"warnings",
             {{warned(net, {u"v"_s, u"w"_s}), warned(disk, {u"u"_s})},
              warned(Error(GeneralError, u"disk full\nno line"_s), {u"u"_s, u"v"_s, u"w"_s})}},
        });
    }

    void unifiedErrorDoesNotDependOnOrder()
    {
        QFETCH(const Unification, row);
        const auto &[errors, unified] = row;
        for (int round = 0; round < 20; ++round) {
            QHashSeed::resetRandomGlobalSeed();
            QCOMPARE(UnifiedError::computeUnifiedError(QSet<Error>(errors.begin(), errors.end())), unified);
            QCOMPARE(UnifiedError::computeUnifiedError(QSet<Error>(errors.rbegin(), errors.rend())), unified);
        }
    }

    void canceledStatusFollowsTheError()
    {
        Cancelee object;
        QSignalSpy spy(&object, &ErrorCancelable::errorChanged);
        object.setError(Error(Canceled));
        object.setError(Error(GeneralError, u"unified"_s));
        QVERIFY(object.isCanceled());
        object.setError(Error());
        QVERIFY(!object.isCanceled());
        object.setError(Error(Canceled));
        QVERIFY(object.isCanceled());
        object.setCanceled(false);
        object.setError(Error(GeneralError, u"x"_s));
        object.setError(object.error());
        QVERIFY(!object.isCanceled());
        QCOMPARE(spy.size(), 6);
        QCOMPARE(spy.last().first().value<Error>(), Error(GeneralError, u"x"_s));
    }

    void handlerMayDeleteTheObject()
    {
        QPointer<Cancelee> object = new Cancelee;
        connect(object, &ErrorCancelable::errorChanged, this, [&] { delete object; });
        object->setError(Error(Canceled));
        QVERIFY(!object);
        object = new Cancelee;
        connect(object, &ErrorCancelable::canceled, this, [&] { delete object; });
        object->cancel();
        QVERIFY(!object);
    }
};

QTEST_GUILESS_MAIN(CommonTest)
#include "tst_common.moc"
