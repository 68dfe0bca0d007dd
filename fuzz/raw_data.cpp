// Raw data: keys of any bytes, files of any content. An input is how, the key
// of the row, the key that the file is for, and the file.
#include "config/raw_data.h"

#include "config/config_objects.h"
#include "core/state.h"
#include "core/status.h"
#include "fuzz/support.h"
#include "objects/handlers.h"

#include <openssl/evp.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <unistd.h>

namespace qdb::fuzz
{
namespace
{

enum : uint8_t
{
    kOwnKey = 1,   // the row's, in capitals
    kOnLoad = 2,   // at start-up, not by an event
    kMarksKey = 4, // so that the value is encoded
    kNoFile = 8,
};

constexpr char kMark[] = "appRAWdata";

// An attribute with that key and no value. Its row stays: another target's end
// removes it.
void MakeRow(const std::string &key)
{
    if (QueryValue("SELECT count(*) FROM TblStrAttribute") == "0")
    {
        DataObjHeader head = {};
        head.objSize = sizeof(head);
        head.objID = 1;
        head.objType = TYPE_CFGSTR;
        Require(CreateObject(*FindRow(TYPE_CFGSTR), &head, nullptr) == 0,
                "a row");
    }
    char *sql = sqlite3_mprintf("UPDATE TblStrAttribute SET Key = %Q, "
                                "CurrentValue = NULL, isRawData = 0",
                                key.c_str());
    const int status =
        sqlite3_exec(QDVdbHandle, sql, nullptr, nullptr, nullptr);
    sqlite3_free(sql);
    Require(status == SQLITE_OK, "the row's key");
}

// A file in memory with that content; its path.
std::string WriteFile(Bytes content)
{
    static const int fd = memfd_create("raw", MFD_CLOEXEC);
    Require(ftruncate(fd, 0) == 0 &&
                pwrite(fd, content.data(), content.size(), 0) ==
                    static_cast<ssize_t>(content.size()),
            "a file");
    return "/proc/self/fd/" + std::to_string(fd);
}

// Lines of 64 characters.
std::string Base64(Bytes content)
{
    std::string text(content.size() / 3 * 4 + 5, '\0');
    const int size =
        EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()),
                        content.data(), static_cast<int>(content.size()));
    text.resize(static_cast<size_t>(size));
    for (size_t at = 64; at < text.size(); at += 65)
    {
        text.insert(at, 1, '\n');
    }
    return text;
}

bool IsMarked(const std::string &key)
{
    return sqlite3_strlike("%apprawdata%", key.c_str(), 0) == 0;
}

std::string InCapitals(std::string key)
{
    std::ranges::transform(key, key.begin(),
                           [](char c)
                           {
                               return c >= 'a' && c <= 'z'
                                          ? static_cast<char>(c - 32)
                                          : c;
                           });
    return key;
}

} // namespace

void RunRawData(Bytes bytes)
{
    const MirrorInMemory mirror(false);
    Input input(bytes);
    const uint8_t how = input.Byte();
    const std::string own =
        input.Text() + ((how & kMarksKey) != 0 ? kMark : "");
    const std::string key =
        (how & kOwnKey) != 0 ? InCapitals(own) : input.Text();
    const Bytes content = (how & kNoFile) != 0 ? Bytes() : input.Rest();
    MakeRow(own);
    const std::string path =
        (how & kNoFile) != 0 ? "/nonexistent/raw" : WriteFile(content);
    const bool onLoad = (how & kOnLoad) != 0;
    Require(RefreshObj_4052_RawData(path.c_str(), key.c_str(),
                                    onLoad ? 1 : 0) == SQLITE_OK,
            "the status of an import");

    const bool isFor = sqlite3_stricmp(own.c_str(), key.c_str()) == 0;
    const bool isTaken = isFor && !(onLoad && content.empty());
    const std::string text =
        IsMarked(key)
            ? Base64(content)
            : std::string(content.begin(), std::ranges::find(content, 0));
    Require(QueryValue("SELECT CurrentValue FROM TblStrAttribute") ==
                (isTaken ? text : ""),
            "the file's content");
    Require((QueryValue("SELECT isRawData FROM TblStrAttribute") == "1") ==
                isTaken,
            "the mark of raw data");
    Require(QueryValue("SELECT Key FROM TblStrAttribute") == own, "the key");
}

} // namespace qdb::fuzz
