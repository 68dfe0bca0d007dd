#include "config/raw_file.h"

#include "core/log.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

namespace qdb
{
namespace
{

constexpr char kEncodedKey[] = "AppRawData";

// Libraries count bytes in an int, and a NUL has to fit behind them.
constexpr long kMaxFileSize = INT_MAX - 1;

// Where an encoding failed, as the log tells it.
enum EncodeFailure : int
{
    kNoChain = 5008,
    kNotWritten = 5018,
    kNotFlushed = 5024,
    kNoBuffer = 5032,
};

struct CloseFile
{
    void operator()(FILE *file) const
    {
        std::fclose(file);
    }
};
using FilePtr = std::unique_ptr<FILE, CloseFile>;

struct FreeChain
{
    void operator()(BIO *chain) const
    {
        BIO_free_all(chain);
    }
};
using BioPtr = std::unique_ptr<BIO, FreeChain>;

// NULL when there is no memory.
RawText ZeroedText(size_t size)
{
    return RawText(static_cast<char *>(std::calloc(size, 1)));
}

// Opens without waiting for a pipe's other end: what the path named a moment
// ago may have been replaced.
FilePtr OpenFile(const char *path)
{
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    FilePtr file(fd < 0 ? nullptr : fdopen(fd, "rb"));
    if (file == nullptr && fd >= 0)
    {
        close(fd);
    }
    return file;
}

// -1 for what has no size.
long SizeOf(FILE *file)
{
    return std::fseek(file, 0, SEEK_END) == 0 ? std::ftell(file) : -1;
}

// The whole file and a NUL behind it; NULL, with the reason logged, when it
// can't be had.
RawText ReadAll(FILE *file, const char *path, int *pSize)
{
    const long size = SizeOf(file);
    if (size < 1)
    {
        QDB_LOG(kLogTrace, "%s: Error: source file filesize is less than or "
                           "equal to zero\n");
        return nullptr;
    }
    std::rewind(file);
    const size_t length = static_cast<size_t>(size);
    RawText content = size > kMaxFileSize ? nullptr : ZeroedText(length + 1);
    if (content == nullptr)
    {
        QDB_LOG(kLogTrace,
                "%s: Error: Can not allocate memory for file copy of size "
                "%d \n",
                static_cast<int>(std::min<long>(size, INT_MAX)));
        return nullptr;
    }
    if (std::fread(content.get(), 1, length, file) != length)
    {
        QDB_LOG(kLogTrace, "%s: Error: Can not read file %s in read Mode\n",
                path);
        return nullptr;
    }
    *pSize = static_cast<int>(size);
    return content;
}

// A base64 filter over a memory sink; NULL when either can't be made.
BioPtr MakeChain()
{
    BioPtr filter(BIO_new(BIO_f_base64()));
    BioPtr sink(BIO_new(BIO_s_mem()));
    if (filter == nullptr || sink == nullptr)
    {
        return nullptr;
    }
    BIO_push(filter.get(), sink.release());
    return filter;
}

// Copies what the sink holds, but for the newline at its end.
RawText CopySink(BIO *chain, int length)
{
    BUF_MEM *memory = nullptr;
    BIO_ctrl(chain, BIO_C_GET_BUF_MEM_PTR, 0, &memory);
    RawText text = memory == nullptr || memory->length == 0
                       ? nullptr
                       : ZeroedText(memory->length);
    if (text == nullptr)
    {
        QDB_LOG(kLogInvalid, "%s: %d:error allocating buffer\n", kNoBuffer);
        return nullptr;
    }
    QDB_LOG(kLogTrace, "%s: ___ %s : bufLen = %d pBuffMem->length = %d\n",
            "EncodeBase64", length, static_cast<int>(memory->length));
    std::memcpy(text.get(), memory->data, memory->length - 1);
    return text;
}

RawText Encode(const char *data, int length)
{
    const BioPtr chain = MakeChain();
    if (chain == nullptr)
    {
        QDB_LOG(kLogInvalid, "%s: %d:Encoding failed, error allocating mem \n",
                kNoChain);
        return nullptr;
    }
    if (BIO_write(chain.get(), data, length) != length)
    {
        QDB_LOG(kLogInvalid, "%s: %d:bio write failed\n", kNotWritten);
        return nullptr;
    }
    if (BIO_ctrl(chain.get(), BIO_CTRL_FLUSH, 0, nullptr) != 1)
    {
        QDB_LOG(kLogInvalid, "%s: %d:bio flush failed\n", kNotFlushed);
        return nullptr;
    }
    return CopySink(chain.get(), length);
}

} // namespace

char *EncodeBase64(const char *data, int length)
{
    QDB_LOG(kLogTrace, "%s: %s: Entry\n", "EncodeBase64");
    if (data == nullptr || length <= 0)
    {
        QDB_LOG(kLogTrace, "%s: %s: bad input buffer \n", "EncodeBase64");
        return nullptr;
    }
    RawText text = Encode(data, length);
    QDB_LOG(kLogTrace, "%s: %s: Exit\n", "EncodeBase64");
    return text.release();
}

int readFile(const char *path, char **ppBuffer, bool encode)
{
    QDB_LOG(kLogTrace, "%s: readFile: Entry\n");
    const FilePtr file = OpenFile(path);
    if (file == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: Error: Opening file %s in read Mode\n", path);
        return 1;
    }
    int size = 0;
    RawText content = ReadAll(file.get(), path, &size);
    if (content == nullptr)
    {
        return 1;
    }
    if (encode)
    {
        content.reset(EncodeBase64(content.get(), size));
        if (content == nullptr)
        {
            QDB_LOG(kLogTrace, "%s: Error: cant encode the filecontent\n");
            return 1;
        }
    }
    *ppBuffer = content.release();
    return 0;
}

bool LoadRawValue(const char *filePath, const char *key, bool onLoad,
                  RawText *pValue)
{
    struct stat info = {};
    if (stat(filePath, &info) != 0)
    {
        QDB_LOG(kLogInvalid, "%s: RefreshObj_4052_RawData: file does not "
                             "present\n");
        if (onLoad)
        {
            QDB_LOG(kLogTrace, "%s: RefreshObj_4052_RawData: Invalid filepath, "
                               "notification not processed\n");
        }
        return !onLoad;
    }
    if (info.st_size < 1)
    {
        QDB_LOG(kLogInvalid, "%s: RefreshObj_4052_RawData: file present with "
                             "size 0\n");
        if (onLoad)
        {
            QDB_LOG(kLogTrace, "%s: RefreshObj_4052_RawData: filepath has no "
                               "data, notification not processed\n");
        }
        return !onLoad;
    }
    QDB_LOG(kLogTrace, "%s: RefreshObj_4052_RawData: file present\n");
    const bool encode = strcasestr(key, kEncodedKey) != nullptr;
    char *value = nullptr;
    if (readFile(filePath, &value, encode) != 0)
    {
        QDB_LOG(kLogInvalid, "%s: RefreshObj_4052_RawData: file present with "
                             "valid size but file read fails\n");
        return true;
    }
    pValue->reset(value);
    QDB_LOG(kLogTrace, "%s: RefreshObj_4052_RawData: Raw File Buffer read %s",
            value);
    return true;
}

} // namespace qdb
