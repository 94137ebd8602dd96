#pragma once

#include <QTest>

#include <initializer_list>
#include <utility>

/// Makes a row of test data of each name and value; the test fetches the value as "row".
template <typename Row>
void addRows(std::initializer_list<std::pair<const char *, Row>> rows)
{
    QTest::addColumn<Row>("row");
    for (const auto &[name, row] : rows)
        QTest::newRow(name) << row;
}
