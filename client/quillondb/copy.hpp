// A copy of one table in memory, for those who want to know how it stands, and
// not what has changed.
//
//     quillondb::Copy fans("TblFanExtObj");
//     while (fans.Wait())
//         Show(fans.Rows());
#pragma once

#include "quillondb/client.hpp"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quillondb
{

// The texts of a row's columns; "" for NULL.
class CopiedRow
{
  public:
    using Names = std::shared_ptr<const std::vector<std::string>>;

    CopiedRow(Names names, std::vector<std::string> texts)
        : names_(std::move(names)), texts_(std::move(texts))
    {
    }

    // std::out_of_range when the table has no column of the name.
    const std::string &operator[](std::string_view column) const
    {
        const auto at = std::ranges::find(*names_, column);
        if (at == names_->end())
        {
            throw std::out_of_range("no column " + std::string(column));
        }
        return texts_[static_cast<size_t>(at - names_->begin())];
    }

  private:
    Names names_;
    std::vector<std::string> texts_;
};

// Throws as Mirror does. One thread, but for Stop().
class Copy
{
  public:
    // `database` is a path, "": where it is installed; `bus` an address, "":
    // the system bus.
    explicit Copy(const std::string &table, const std::string &database = {},
                  const std::string &bus = {})
        : mirror_(Told(), {database, bus, {table}})
    {
    }
    Copy(const Copy &) = delete;
    Copy &operator=(const Copy &) = delete;

    // Waits until the rows are there, or differ from what they were when it
    // last returned, or may be up to date again after the service was away.
    // False behind Stop(), for ever.
    bool Wait()
    {
        if (!isStopped_)
        {
            mirror_.Run();
        }
        return !isStopped_;
    }

    // From signal handlers and other threads, too.
    void Stop() noexcept
    {
        isStopped_ = true;
        mirror_.Stop();
    }

    // By OID; what was last known while the service is away.
    const std::map<int64_t, CopiedRow> &Rows() const
    {
        return rows_;
    }

  private:
    // News ends the mirror's running, behind all that comes with it.
    Handlers Told()
    {
        const auto keep = [this](const Row &row)
        {
            rows_.insert_or_assign(row.Oid(), Copied(row));
            mirror_.Stop();
        };
        const auto drop = [this](const Row &row)
        {
            rows_.erase(row.Oid());
            mirror_.Stop();
        };
        const auto note = [this](bool isReady)
        {
            if (isReady)
            {
                mirror_.Stop();
            }
        };
        return {keep, keep, drop, note, {}};
    }

    // The names are kept once, for all rows that have the same.
    CopiedRow Copied(const Row &row)
    {
        std::vector<std::string> names;
        std::vector<std::string> texts;
        for (size_t i = 0; i < row.Count(); ++i)
        {
            names.emplace_back(row[i].Name());
            texts.emplace_back(row[i].Text());
        }
        if (names_ == nullptr || *names_ != names)
        {
            names_ = std::make_shared<std::vector<std::string>>(names);
        }
        return {names_, std::move(texts)};
    }

    std::map<int64_t, CopiedRow> rows_;
    CopiedRow::Names names_;
    std::atomic<bool> isStopped_ = false;
    Mirror mirror_;
};

} // namespace quillondb
