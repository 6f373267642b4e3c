// The public interface of shared maps.
//
//     using Counters = Shard::Map<LbId, CounterEntry>;
//     Counters::Writer writer(space, "counters", 1023);     // in one process
//     writer.mountComplete();
//     writer.valueIs(key, entry);
//     if (!writer.commit()) ...;                            // write everything again
//     Counters::Reader reader(space, "counters");           // in any other
//     reader.update(); reader.find(key, entry) == Shard::Lookup::found
//
// Map holds values of one type. ListMap holds for each key a list of up to `longest` records,
// written as a span and read as a vector; its memory use follows the lengths of the lists. Keys and
// values are copied as bytes: both are trivially copyable, a key has no padding, and neither may
// contain a pointer. Raise `schema` when the meaning of the bytes changes, so that an older reader
// refuses the map.
#pragma once

#include <array>
#include <cstring>
#include <span>
#include <type_traits>
#include <vector>

#include "platform/shard/MapReader.h"
#include "platform/shard/MapWriter.h"

namespace Shard {

// A key as stored in a segment: whole words, padded with zeros.
template <class Key>
struct KeyWords {
    static_assert(std::is_trivially_copyable_v<Key>);
    static_assert(std::has_unique_object_representations_v<Key>, "equal keys have equal bytes");
    static_assert(sizeof(Key) <= maxKeyBytes);
    static constexpr size_t size = (sizeof(Key) + 7) / 8;

    KeyWords() = default;
    // Copied in whole words: loading a word whose parts have just been stored stalls the processor.
    explicit KeyWords(const Key& key) {
        for (size_t i = 0; i < size; ++i) {
            uint64_t word = 0;
            std::memcpy(&word, reinterpret_cast<const std::byte*>(&key) + i * 8,
                        i + 1 < size ? 8 : sizeof key - i * 8);
            words[i] = word;
        }
    }
    static Key keyOf(const uint64_t* words) {
        std::array<std::byte, sizeof(Key)> bytes;
        std::memcpy(bytes.data(), words, sizeof(Key));
        return std::bit_cast<Key>(bytes);
    }
    const uint64_t* data() const { return words.data(); }

    std::array<uint64_t, size> words{};
};

// How values of one size are copied into and out of a segment.
template <class V>
struct PlainValues {
    static_assert(std::is_trivially_copyable_v<V> && sizeof(V) <= maxValueBytes);
    using Value = V;
    using Input = const V&;
    static constexpr uint32_t longest = sizeof(V), list = 0;

    static auto placeIn(Value& value) {
        return [&value](uint64_t) { return &value; };
    }
    static std::span<const V> bytesOf(Input value) { return {&value, 1}; }
};

// The same for lists.
template <class Record, uint32_t records>
struct ListValues {
    static_assert(std::is_trivially_copyable_v<Record>);
    static_assert(uint64_t{records} * sizeof(Record) <= maxValueBytes);
    using Value = std::vector<Record>;
    using Input = std::span<const Record>;
    static constexpr uint32_t longest = records * sizeof(Record), list = 1;

    // A length that is not a multiple of a record's size is caused by damage; the list is then
    // wrong, as any value in a damaged segment may be.
    static auto placeIn(Value& value) {
        return [&value](uint64_t bytes) {
            value.resize((bytes + sizeof(Record) - 1) / sizeof(Record));
            return value.data();
        };
    }
    static std::span<const Record> bytesOf(Input value) { return value; }
};

template <class Key, class Values, uint32_t schema>
struct TypedMap {
    using Value = typename Values::Value;
    static constexpr Shape shape{KeyWords<Key>::size * 8, Values::longest, schema, Values::list};

    class Writer : public MapWriter {
      public:
        // `capacity`: the largest number of keys. `listBytes`: the total size of all lists.
        Writer(const Namespace& space, const std::string& map, uint32_t capacity,
               uint64_t listBytes = 0)
            : MapWriter(space, map, shape, capacity, listBytes) {}

        // Inserts or replaces. Raises Vel::Error if the list is too long or the map is full; the
        // key then keeps its present value.
        void valueIs(const Key& key, typename Values::Input value) {
            const auto bytes = Values::bytesOf(value);
            put<shape>(KeyWords<Key>(key).data(), bytes.data(), bytes.size_bytes());
        }
        // False if the key was not found.
        bool valueDel(const Key& key) { return erase(KeyWords<Key>(key).data()); }
        bool find(const Key& key, Value& value) const {
            return MapWriter::find<shape>(KeyWords<Key>(key).data(), Values::placeIn(value)) ==
                   Lookup::found;
        }
    };

    class Reader : public MapReader {
      public:
        Reader(const Namespace& space, const std::string& map) : MapReader(space, map, shape) {}
        explicit Reader(const Writer& writer) : MapReader(writer) {}

        // `value` is valid only if the result is `found`.
        Lookup find(const Key& key, Value& value) const {
            return MapReader::find<shape>(KeyWords<Key>(key).data(), Values::placeIn(value));
        }
        // Calls `visit(key, value)` for each entry that is present throughout the call, and
        // possibly for others. False if an entry was omitted because it could not be read.
        template <class Visit>
        bool forEach(Visit&& visit) const {
            KeyWords<Key> key;
            Value value;
            return walk<shape>(
                key.words.data(), Values::placeIn(value),
                [&](const uint64_t* words) { visit(KeyWords<Key>::keyOf(words), value); });
        }
        // Calls `visit(key)` for each change since the last call; the visitor looks up the current
        // value. See News for the result `everything`.
        template <class Visit>
        News changes(Visit&& visit) {
            return MapReader::changes<shape>(
                [&](const uint64_t* words) { visit(KeyWords<Key>::keyOf(words)); });
        }
    };
};

template <class Key, class Value, uint32_t schema = 1>
using Map = TypedMap<Key, PlainValues<Value>, schema>;

template <class Key, class Record, uint32_t longest, uint32_t schema = 1>
using ListMap = TypedMap<Key, ListValues<Record, longest>, schema>;

}  // namespace Shard
