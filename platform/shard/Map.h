// Shared maps as their users see them.
//
//     using Counters = Shard::Map<LbId, CounterEntry>;
//     Counters::Writer writer(space, "counters", 1023);     // in one process
//     writer.valueIs(key, entry); writer.commit();
//     Counters::Reader reader(space, "counters");           // in any other
//     reader.update(); reader.find(key, entry) == Shard::Lookup::found
//
// Map holds values of one type; ListMap holds for each key a list of up to `longest` records, and
// the memory taken follows the lists' lengths. Keys and values are copied as bytes: both are
// trivially copyable, a key has no padding, and neither may hold a pointer. Raise `schema` when the
// meaning of the bytes changes, so that an older reader refuses the map.
#pragma once

#include <array>
#include <cstring>
#include <span>
#include <type_traits>
#include <vector>

#include "platform/shard/MapReader.h"
#include "platform/shard/MapWriter.h"

namespace Shard {

// A key as the tables know it: whole words, padded with zeros.
template <class Key>
struct KeyWords {
    static_assert(std::is_trivially_copyable_v<Key>);
    static_assert(std::has_unique_object_representations_v<Key>, "equal keys have equal bytes");
    static_assert(sizeof(Key) <= maxKeyBytes);
    static constexpr size_t size = (sizeof(Key) + 7) / 8;

    KeyWords() = default;
    explicit KeyWords(const Key& key) { std::memcpy(words.data(), &key, sizeof key); }
    static Key keyOf(const uint64_t* words) {
        std::array<std::byte, sizeof(Key)> bytes;
        std::memcpy(bytes.data(), words, sizeof(Key));
        return std::bit_cast<Key>(bytes);
    }
    const uint64_t* data() const { return words.data(); }

    std::array<uint64_t, size> words{};
};

template <class Key, class Value, Shape shape>
class TypedWriter : public MapWriter {
  public:
    bool valueDel(const Key& key) { return erase(KeyWords<Key>(key).data()); }

  protected:
    using MapWriter::MapWriter;
};

template <class Key, Shape shape>
class TypedReader : public MapReader {
  public:
    TypedReader(const Namespace& space, const std::string& map) : MapReader(space, map, shape) {}

    // Calls `visit(key)` for each key put or removed since the last call, once for each commit or
    // more often; what it has now is for the visitor to look up. See News for `everything`.
    template <class Visit>
    News changes(Visit&& visit) {
        return MapReader::changes<shape>(
            [&](const uint64_t* words) { visit(KeyWords<Key>::keyOf(words)); });
    }

  protected:
    explicit TypedReader(const MapWriter& writer) : MapReader(writer) {}
};

template <class Key, class Value, uint32_t schema = 1>
struct Map {
    static_assert(std::is_trivially_copyable_v<Value> && sizeof(Value) <= maxValueBytes);
    static constexpr Shape shape{KeyWords<Key>::size * 8, sizeof(Value), schema, 0};

    class Writer : public TypedWriter<Key, Value, shape> {
      public:
        Writer(const Namespace& space, const std::string& map, uint32_t capacity)
            : TypedWriter<Key, Value, shape>(space, map, shape, capacity) {}

        // Inserts or replaces. Raises Vel::Error when the map is full.
        void valueIs(const Key& key, const Value& value) {
            this->template put<shape>(KeyWords<Key>(key).data(), &value, sizeof value);
        }
        bool find(const Key& key, Value& value) const {
            return MapWriter::find<shape>(KeyWords<Key>(key).data(),
                                          [&](uint64_t) { return &value; }) == Lookup::found;
        }
    };

    class Reader : public TypedReader<Key, shape> {
      public:
        using TypedReader<Key, shape>::TypedReader;
        explicit Reader(const Writer& writer) : TypedReader<Key, shape>(writer) {}

        // `value` is the value only when it is found.
        Lookup find(const Key& key, Value& value) const {
            return MapReader::find<shape>(KeyWords<Key>(key).data(),
                                          [&](uint64_t) { return &value; });
        }
        // Calls `visit(key, value)` for each entry: for those that are there all the time at least
        // once, for others perhaps. False when an entry was left out because it could not be read.
        template <class Visit>
        bool forEach(Visit&& visit) const {
            KeyWords<Key> key;
            Value value;
            return this->template walk<shape>(
                key.words.data(), [&](uint64_t) { return &value; },
                [&](const uint64_t* words) { visit(KeyWords<Key>::keyOf(words), value); });
        }
    };
};

template <class Key, class Record, uint32_t longest, uint32_t schema = 1>
struct ListMap {
    static_assert(std::is_trivially_copyable_v<Record>);
    static_assert(uint64_t{longest} * sizeof(Record) <= maxValueBytes);
    static constexpr Shape shape{KeyWords<Key>::size * 8, longest * sizeof(Record), schema, 1};

    class Writer : public TypedWriter<Key, Record, shape> {
      public:
        // `records`: how many the lists are to hold together.
        Writer(const Namespace& space, const std::string& map, uint32_t capacity, uint64_t records)
            : TypedWriter<Key, Record, shape>(space, map, shape, capacity,
                                              records * sizeof(Record)) {}

        // Inserts or replaces. Raises Vel::Error when the list is too long or the map full.
        void valueIs(const Key& key, std::span<const Record> list) {
            if (list.size() > longest) this->tooLong(list.size(), longest);
            this->template put<shape>(KeyWords<Key>(key).data(), list.data(), list.size_bytes());
        }
        bool find(const Key& key, std::vector<Record>& list) const {
            return MapWriter::find<shape>(KeyWords<Key>(key).data(), placeIn(list)) ==
                   Lookup::found;
        }
    };

    class Reader : public TypedReader<Key, shape> {
      public:
        using TypedReader<Key, shape>::TypedReader;
        explicit Reader(const Writer& writer) : TypedReader<Key, shape>(writer) {}

        Lookup find(const Key& key, std::vector<Record>& list) const {
            return MapReader::find<shape>(KeyWords<Key>(key).data(), placeIn(list));
        }
        template <class Visit>
        bool forEach(Visit&& visit) const {
            KeyWords<Key> key;
            std::vector<Record> list;
            return this->template walk<shape>(
                key.words.data(), placeIn(list),
                [&](const uint64_t* words) { visit(KeyWords<Key>::keyOf(words), list); });
        }
    };

  private:
    // A length that is no multiple of a record's never came from a writer; what it leaves out is
    // not copied, the list is merely wrong, as any values in a damaged segment may be.
    static auto placeIn(std::vector<Record>& list) {
        return [&list](uint64_t bytes) {
            list.resize((bytes + sizeof(Record) - 1) / sizeof(Record));
            return list.data();
        };
    }
};

}  // namespace Shard
