#include "backend/Compression.h"

#include <zstd.h>

namespace kyo::orx {

const char* nameOf(Encoding encoding) {
    return encoding == Encoding::Zstd ? "zstd" : "plain";
}

struct Compressor::Context {
    ZSTD_CCtx* const handle = ZSTD_createCCtx();
    ~Context() { ZSTD_freeCCtx(handle); }
};

Compressor::Compressor(int level) : m_context(std::make_unique<Context>()) {
    if (m_context->handle != nullptr) {
        ZSTD_CCtx_setParameter(m_context->handle, ZSTD_c_compressionLevel, level);
        ZSTD_CCtx_setParameter(m_context->handle, ZSTD_c_checksumFlag, 1);
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
    return settings.method == "zstd" ? std::make_unique<Compressor>(settings.level) : nullptr;
}

bool decompress(Encoding encoding, std::string_view payload, std::string& text, std::string& error,
                std::size_t limit) {
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
        error =
            claimed == ZSTD_CONTENTSIZE_ERROR ? "it is no zstd frame" : "its frame does not tell its length";
        return false;
    }
    if (claimed > limit) {
        error = "a text of " + std::to_string(claimed) + " bytes is more than the limit of " +
                std::to_string(limit);
        return false;
    }
    text.resize(claimed);
    const std::size_t size = ZSTD_decompress(text.data(), text.size(), payload.data(), payload.size());
    if (ZSTD_isError(size) != 0) {
        error = std::string("its zstd frame cannot be read: ") + ZSTD_getErrorName(size);
        text.clear();
        return false;
    }
    text.resize(size);
    return true;
}

}  // namespace kyo::orx
