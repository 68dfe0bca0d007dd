// Signals of random objects, one for each row of the catalogue, against what
// any other process reads from the database: byte for byte, so that nobody who
// renders a row in another way than SQLite and Jansson do goes unseen.

#include "objects/catalogue.h"
#include "tests/support/handler_fixture.h"
#include "tests/support/random_rows.h"
#include "tests/support/row_values.h"
#include "tests/support/stream_driver.h"

#include <gtest/gtest.h>

#include <cstring>

namespace qdb::test
{
namespace
{

constexpr uint32_t kOid = 0xBADC0DE0;

class RandomObjects : public Handler
{
  protected:
    // What the process has announced since the last call, tags as they are.
    Lines Texts()
    {
        Lines texts;
        for (const Change &change : listener_.TakeAll())
        {
            texts.push_back(change.member.substr(kMemberPrefix.size()) + " " +
                            change.json);
        }
        return texts;
    }

    JsonPtr Row(const Subject &subject) const
    {
        return SignalledRow(mirror_.Root().Database(), *subject.row->table,
                            subject.oid);
    }
};

// The signal, if the row can be told at all. The bus takes no text that holds
// one of Unicode's noncharacters.
Lines Expected(const std::string &kind, const Subject &subject,
               const JsonPtr &row, const JsonPtr &changed = nullptr,
               const JsonPtr &previous = nullptr)
{
    if (row == nullptr)
    {
        return {};
    }
    const JsonPtr root(json_object());
    json_object_set_new(root.get(), "TableName",
                        json_string(subject.row->table->name));
    json_object_set(root.get(), "RowDetails", row.get());
    json_object_set(root.get(), "PropertiesChanged", changed.get());
    json_object_set(root.get(), "PreviousPropertyValues", previous.get());
    const JsonText text(json_dumps(root.get(), 0));
    return std::strstr(text.get(), "\xEF\xBF\xBF") == nullptr
               ? Lines{kind + " " + text.get()}
               : Lines{};
}

// Without a change but the tag's nothing is said.
Lines ExpectedChange(const Subject &subject, const JsonPtr &before,
                     const JsonPtr &after)
{
    const JsonPtr changed = Difference(before.get(), after.get());
    const size_t tags =
        json_object_get(changed.get(), "SingleRecordEtag") == nullptr ? 0 : 1;
    if (before == nullptr || json_object_size(changed.get()) == tags)
    {
        return {};
    }
    return Expected("Changed", subject, after, changed,
                    subject.row->Has(Trait::PreviousValues)
                        ? Difference(after.get(), before.get())
                        : nullptr);
}

TEST_F(RandomObjects, AreSignalledAsTheyAreStored)
{
    int told = 0;
    uint32_t seed = 0;
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        RandomRows random(++seed);
        const Subject subject = {&row, kOid};
        SCOPED_TRACE(row.suffix);
        const JsonPtr values = random.Values(row);
        Put(subject, values.get());
        Notify(subject, kCreate);
        JsonPtr before = Row(subject);
        EXPECT_EQ(Texts(), Expected("Added", subject, before));
        for (int change = 0; change < 3; ++change)
        {
            random.Vary(row, values.get());
            Put(subject, values.get());
            // Half of the changes happen in a second of their own.
            if (change % 2 == 0)
            {
                mirror_.Rows(std::string("UPDATE ") + row.table->name +
                             " SET SingleRecordEtag = '1'");
                before = Row(subject);
            }
            Notify(subject, kDirty);
            JsonPtr after = Row(subject);
            const Lines texts = Texts();
            told += static_cast<int>(texts.size());
            EXPECT_EQ(texts, ExpectedChange(subject, before, after));
            before = std::move(after);
        }
        Notify(subject, kDestroy);
        EXPECT_EQ(Texts(), Expected("Removed", subject, before));
        Remove(subject);
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        ASSERT_FALSE(HasFailure());
    }
    // Most objects can be told; the others are there for their own sake.
    EXPECT_GT(told, 200);
}

} // namespace
} // namespace qdb::test
