#pragma once
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "machine/Manifest.h"

namespace kyo::orx {

/// How the text of an envelope is written, on disk and on the wire.
enum class Encoding : std::uint8_t { Plain = 0, Zstd = 1 };

/// The number of the dictionary that a zstd frame needs; 0: none.
std::uint32_t dictionaryOf(Encoding encoding, std::string_view payload);

/// "plain", "zstd" or "zstd-<number of the dictionary>", as a topic or a user property says it.
std::string nameOf(Encoding encoding, std::string_view payload);

/// The longest text that decompress() returns, unless the caller sets another limit.
inline constexpr std::size_t kLargestText = 64u << 20;

/// A trained zstd dictionary: what envelopes have in common, so that their frames need not contain it. Never
/// changes; any thread may use it.
class Dictionary {
  public:
    /// The built-in one of that number, or that of a file. None with the reason in `error`.
    static std::shared_ptr<const Dictionary> load(const std::string& numberOrFile, std::string& error);
    ~Dictionary();
    Dictionary(const Dictionary&) = delete;
    Dictionary& operator=(const Dictionary&) = delete;

    std::uint32_t id() const;
    const std::string& content() const { return m_content; }

    struct Native;
    const Native& native() const { return *m_native; }

  private:
    friend class Dictionaries;
    explicit Dictionary(std::string content);

    const std::string m_content;
    const std::unique_ptr<const Native> m_native;
};

/// The dictionaries that a reader knows, by their numbers.
class Dictionaries {
  public:
    /// As Dictionary::load(). False with the reason in `error`.
    bool add(const std::string& numberOrFile, std::string& error);
    void addBuiltIn();
    /// None when it is not known.
    const Dictionary* find(std::uint32_t id) const;

  private:
    std::map<std::uint32_t, std::shared_ptr<const Dictionary>> m_known;
};

/// The contents of those that come with the system.
const std::vector<std::string_view>& builtInDictionaries();

/// The built-in ones and the files that a command line names. Throws std::runtime_error for one that cannot
/// be used.
void addDictionaries(const std::vector<std::string>& named, Dictionaries& known);

/// Compresses one text after the other. One thread at a time.
class Compressor {
  public:
    /// Levels as of zstd, from 1 to 19.
    explicit Compressor(int level, const std::shared_ptr<const Dictionary>& dictionary = nullptr);
    ~Compressor();
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;

    /// Returns one zstd frame, which contains its text's length and its dictionary's number, and ends with a
    /// checksum. Empty when memory is short.
    std::string compress(std::string_view text);

  private:
    struct Context;
    const std::unique_ptr<Context> m_context;
};

/// As the manifest says; none for plain text. A dictionary that cannot be used is logged, and not used.
std::unique_ptr<Compressor> makeCompressor(const machine::Compression& settings);

/// The text of an untrusted payload. The length that a frame claims is compared with `limit` before any
/// memory is taken for it. False with the reason in `error`.
bool decompress(Encoding encoding, std::string_view payload, std::string& text, std::string& error,
                std::size_t limit = kLargestText, const Dictionaries& known = {});

}  // namespace kyo::orx
