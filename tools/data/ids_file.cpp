#include "ids_file.hpp"

#define XXH_INLINE_ALL
#include "error.hpp"

#include <fmt/format.h>
#include <xxhash.h>

namespace zxtool {

namespace {

constexpr std::string_view kMagic = "ZXMODIDS";
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kHashBytes = 8;

template <class T>
void append(std::string& out, T value) {
    for (std::size_t i = 0; i < sizeof(T); ++i) out += static_cast<char>(value >> (8 * i) & 0xFFU);
}

void append_ids(std::string& out, const IdMap& ids) {
    for (std::uint32_t number = 0; number < ids.size(); ++number) {
        const std::string_view id = ids.name(number);
        append(out, static_cast<std::uint32_t>(id.size()));
        out += id;
    }
}

class Parser {
  public:
    Parser(std::string_view rest, const std::string& name) : rest_(rest), name_(name) {}

    [[noreturn]] void refuse(const char* what) const {
        throw Error(Exit::kBadModel, fmt::format("{}: {}", name_, what));
    }
    [[nodiscard]] bool starts_with(std::string_view start) const {
        return rest_.starts_with(start);
    }
    std::string_view take(std::size_t count) {
        if (rest_.size() < count) refuse("ids file ends too early");
        const std::string_view bytes = rest_.substr(0, count);
        rest_.remove_prefix(count);
        return bytes;
    }
    template <class T>
    T take_number() {
        T value = 0;
        const std::string_view bytes = take(sizeof(T));
        for (std::size_t i = 0; i < sizeof(T); ++i)
            value |=
                static_cast<T>(static_cast<T>(static_cast<unsigned char>(bytes[i])) << (8 * i));
        return value;
    }
    void take_ids(std::uint32_t count, IdMap& ids) {
        for (std::uint32_t number = 0; number < count; ++number)
            if (ids.add(take(take_number<std::uint32_t>())) != number)
                refuse("ids file names an id twice");
    }
    [[nodiscard]] std::size_t left() const { return rest_.size(); }

  private:
    std::string_view rest_;
    const std::string& name_;
};

void take_kind(Parser& parser) {
    if (!parser.starts_with(kMagic)) parser.refuse("is no ids file");
    parser.take(kMagic.size());
    if (parser.take_number<std::uint32_t>() != kVersion)
        parser.refuse("ids file is of a version that this program does not know");
}

struct Head {
    std::uint32_t num_users;
    std::uint32_t num_items;
    ModelPrint model;
};

Head take_head(Parser& parser) {
    Head head{};
    head.num_users = parser.take_number<std::uint32_t>();
    head.num_items = parser.take_number<std::uint32_t>();
    parser.take_number<std::uint32_t>();
    head.model.bytes = parser.take_number<std::uint64_t>();
    head.model.hash = parser.take_number<std::uint64_t>();
    return head;
}

bool is_intact(std::string_view contents, const std::string& name) {
    if (contents.size() < kHashBytes) return false;
    const std::size_t hashed = contents.size() - kHashBytes;
    Parser hash(contents.substr(hashed), name);
    return hash.take_number<std::uint64_t>() == XXH3_64bits(contents.data(), hashed);
}

}  // namespace

std::string format_ids(const ModelPrint& model, const IdMap& users, const IdMap& items) {
    std::string out(kMagic);
    append(out, kVersion);
    append(out, users.size());
    append(out, items.size());
    append(out, std::uint32_t{0});
    append(out, model.bytes);
    append(out, model.hash);
    append_ids(out, users);
    append_ids(out, items);
    append(out, std::uint64_t{XXH3_64bits(out.data(), out.size())});
    return out;
}

ModelPrint parse_ids_head(std::string_view start, const std::string& name) {
    Parser parser(start, name);
    take_kind(parser);
    return take_head(parser).model;
}

IdsFile parse_ids(std::string_view contents, const std::string& name) {
    Parser parser(contents, name);
    take_kind(parser);
    if (!is_intact(contents, name)) parser.refuse("ids file is damaged");

    const Head head = take_head(parser);
    IdsFile ids;
    ids.model = head.model;
    parser.take_ids(head.num_users, ids.users);
    parser.take_ids(head.num_items, ids.items);
    if (parser.left() != kHashBytes) parser.refuse("ids file does not end behind its ids");
    return ids;
}

}  // namespace zxtool
