#include "backend/Compression.h"

#include <zstd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "log/PlatformLog.h"

namespace kyo::orx {

namespace {

constexpr std::size_t kLargestDictionary = 4u << 20;

}  // namespace

std::uint32_t dictionaryOf(Encoding encoding, std::string_view payload) {
    return encoding == Encoding::Zstd ? ZSTD_getDictID_fromFrame(payload.data(), payload.size()) : 0;
}

std::string nameOf(Encoding encoding, std::string_view payload) {
    const std::uint32_t id = dictionaryOf(encoding, payload);
    return encoding == Encoding::Plain ? "plain" : id == 0 ? "zstd" : "zstd-" + std::to_string(id);
}

struct Dictionary::Native {
    ZSTD_DDict* const handle;
    explicit Native(const std::string& content) : handle(ZSTD_createDDict(content.data(), content.size())) {}
    ~Native() { ZSTD_freeDDict(handle); }
    Native(const Native&) = delete;
    Native& operator=(const Native&) = delete;
};

Dictionary::Dictionary(std::string content)
    : m_content(std::move(content)), m_native(std::make_unique<const Native>(m_content)) {}

Dictionary::~Dictionary() = default;

std::uint32_t Dictionary::id() const {
    return ZSTD_getDictID_fromDDict(m_native->handle);
}

std::shared_ptr<const Dictionary> Dictionary::load(const std::string& numberOrFile, std::string& error) {
    if (numberOrFile.find_first_not_of("0123456789") == std::string::npos) {
        std::string known;
        for (const std::string_view content : builtInDictionaries()) {
            std::shared_ptr<const Dictionary> made(new Dictionary(std::string(content)));
            if (std::to_string(made->id()) == numberOrFile) {
                return made;
            }
            known += (known.empty() ? "" : ", ") + std::to_string(made->id());
        }
        error = "no dictionary " + numberOrFile + " is built in; known are " + known;
        return nullptr;
    }
    std::ifstream stream(numberOrFile, std::ios::binary);
    std::string content(kLargestDictionary + 1, '\0');
    if (!stream.read(content.data(), static_cast<std::streamsize>(content.size())) && !stream.eof()) {
        error = numberOrFile + ": " + std::strerror(errno);
        return nullptr;
    }
    content.resize(static_cast<std::size_t>(stream.gcount()));
    content.shrink_to_fit();
    if (content.size() > kLargestDictionary) {
        error = numberOrFile + ": more than " + std::to_string(kLargestDictionary) + " bytes";
        return nullptr;
    }
    std::shared_ptr<const Dictionary> made(new Dictionary(std::move(content)));
    if (made->native().handle == nullptr || made->id() == 0) {
        error = numberOrFile + ": no zstd dictionary";
        return nullptr;
    }
    return made;
}

bool Dictionaries::add(const std::string& numberOrFile, std::string& error) {
    auto dictionary = Dictionary::load(numberOrFile, error);
    if (dictionary) {
        m_known[dictionary->id()] = dictionary;
    }
    return dictionary != nullptr;
}

void Dictionaries::addBuiltIn() {
    for (const std::string_view content : builtInDictionaries()) {
        const std::shared_ptr<const Dictionary> made(new Dictionary(std::string(content)));
        m_known[made->id()] = made;
    }
}

const Dictionary* Dictionaries::find(std::uint32_t id) const {
    const auto found = m_known.find(id);
    return found != m_known.end() ? found->second.get() : nullptr;
}

void addDictionaries(const std::vector<std::string>& named, Dictionaries& known) {
    known.addBuiltIn();
    std::string error;
    for (const std::string& file : named) {
        if (!file.empty() && !known.add(file, error)) {
            throw std::runtime_error(error);
        }
    }
}

struct Compressor::Context {
    ZSTD_CCtx* const handle = ZSTD_createCCtx();
    ZSTD_CDict* dictionary = nullptr;
    Context() = default;
    ~Context() {
        ZSTD_freeCCtx(handle);
        ZSTD_freeCDict(dictionary);
    }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
};

Compressor::Compressor(int level, const std::shared_ptr<const Dictionary>& dictionary)
    : m_context(std::make_unique<Context>()) {
    if (m_context->handle == nullptr) {
        return;
    }
    ZSTD_CCtx_setParameter(m_context->handle, ZSTD_c_compressionLevel, level);
    ZSTD_CCtx_setParameter(m_context->handle, ZSTD_c_checksumFlag, 1);
    if (dictionary) {
        const std::string& content = dictionary->content();
        m_context->dictionary = ZSTD_createCDict(content.data(), content.size(), level);
        ZSTD_CCtx_refCDict(m_context->handle, m_context->dictionary);
    }
}

Compressor::~Compressor() = default;

std::string Compressor::compress(std::string_view text) {
    if (m_context->handle == nullptr) {
        return {};
    }
    std::string out(ZSTD_compressBound(text.size()), '\0');
    const std::size_t size =
        ZSTD_compress2(m_context->handle, out.data(), out.size(), text.data(), text.size());
    out.resize(ZSTD_isError(size) != 0 ? 0 : size);
    out.shrink_to_fit();
    return out;
}

std::unique_ptr<Compressor> makeCompressor(const machine::Compression& settings) {
    if (settings.method != "zstd") {
        return nullptr;
    }
    std::shared_ptr<const Dictionary> dictionary;
    if (std::string error; !settings.dictionary.empty()) {
        dictionary = Dictionary::load(settings.dictionary, error);
        if (!dictionary) {
            KYO_LOG(3, "Envelopes are compressed without a dictionary: " << error);
        }
    }
    return std::make_unique<Compressor>(settings.level, dictionary);
}

bool decompress(Encoding encoding, std::string_view payload, std::string& text, std::string& error,
                std::size_t limit, const Dictionaries& known) {
    text.clear();
    if (encoding == Encoding::Plain) {
        if (payload.size() > limit) {
            error =
                std::to_string(payload.size()) + " bytes are more than the limit of " + std::to_string(limit);
            return false;
        }
        text = payload;
        return true;
    }
    const unsigned long long claimed = ZSTD_getFrameContentSize(payload.data(), payload.size());
    if (claimed == ZSTD_CONTENTSIZE_ERROR || claimed == ZSTD_CONTENTSIZE_UNKNOWN) {
        error = claimed == ZSTD_CONTENTSIZE_ERROR ? "it is no zstd frame"
                                                  : "its frame does not contain its length";
        return false;
    }
    if (claimed > limit) {
        error = "a text of " + std::to_string(claimed) + " bytes is more than the limit of " +
                std::to_string(limit);
        return false;
    }
    const std::uint32_t id = dictionaryOf(encoding, payload);
    const Dictionary* const dictionary = known.find(id);
    if (id != 0 && dictionary == nullptr) {
        error = "its dictionary " + std::to_string(id) + " is not known";
        return false;
    }
    const std::unique_ptr<ZSTD_DCtx, std::size_t (*)(ZSTD_DCtx*)> context(ZSTD_createDCtx(), ZSTD_freeDCtx);
    if (!context) {
        error = "there is no memory for its frame";
        return false;
    }
    text.resize(claimed);
    const std::size_t size =
        ZSTD_decompress_usingDDict(context.get(), text.data(), text.size(), payload.data(), payload.size(),
                                   dictionary != nullptr ? dictionary->native().handle : nullptr);
    if (ZSTD_isError(size) != 0) {
        error = std::string("its zstd frame cannot be read: ") + ZSTD_getErrorName(size);
        text.clear();
        return false;
    }
    text.resize(size);
    return true;
}

}  // namespace kyo::orx
