// Declaring an entity's notifying attributes and collections in one line each.
//
//   class ExporterInfo : public Kivo::Object {
//      KIVO_ATTR(std::uint16_t, rxPort4, RxPort4);            // rxPort4(), rxPort4Is(v),
//      onRxPort4() KIVO_ATTR_INC(std::uint32_t, version, Version);        // ... and versionInc(d)
//      KIVO_VALUES(Kivo::String, Pelto::IpAndPort, collector4, Collector4);
//      KIVO_ENTITIES(Kivo::String, CollectorInfo, collInfo, CollInfo);
//   };
//
// Each macro declares public operations and a private member `name_`, whose signal carries the
// attribute's name for traces; the access specifier after a macro is private, so put public
// declarations after a `public:`. Collections of entities create elements as Type(key); they are
// ordered by key unless declared of another kind.
#pragma once

#include <utility>

#include "Kivo/Attr.h"

#define KIVO_ATTR(Type, name, Name)           \
 public:                                      \
   Type const& name() const {                 \
      return name##_.get();                   \
   }                                          \
   void name##Is(Type v) {                    \
      name##_.is(std::move(v));               \
   }                                          \
   ::Kivo::Signal<> const& on##Name() const { \
      return name##_.signal();                \
   }                                          \
                                              \
 private:                                     \
   ::Kivo::Value<Type> name##_ {              \
      ::Kivo::SignalName {                    \
#name                                \
      }                                       \
   }

#define KIVO_ATTR_INC(Type, name, Name) \
 public:                                \
   template <class D>                   \
   Type name##Inc(D delta) {            \
      return name##_.inc(delta);        \
   }                                    \
   KIVO_ATTR(Type, name, Name)

// The operations both kinds of collection share, for the macros below.
#define KIVO_COLL_COMMON_(Key, CollType, name, Name) \
 public:                                             \
   void name##Del(Key const& k) {                    \
      name##_.del(k);                                \
   }                                                 \
   void name##DelAll() {                             \
      name##_.delAll();                              \
   }                                                 \
   CollType const& name##Coll() const {              \
      return name##_;                                \
   }                                                 \
   ::Kivo::Signal<Key> const& on##Name() const {     \
      return name##_.signal();                       \
   }                                                 \
                                                     \
 private:                                            \
   CollType name##_ {                                \
      ::Kivo::SignalName {                           \
#name                                       \
      }                                              \
   }

#define KIVO_VALUES(Key, Type, name, Name) \
   KIVO_VALUES_OF_KIND(Key, Type, ::Kivo::Ordered, name, Name)

// KIVO_VALUES held in a collection of another kind (Kivo::Hashed, Kivo::Dense).
#define KIVO_VALUES_OF_KIND(Key, Type, Kind, name, Name) \
 public:                                                 \
   Type const* name(Key const& k) const {                \
      return name##_.find(k);                            \
   }                                                     \
   void name##Is(Key const& k, Type v) {                 \
      name##_.is(k, std::move(v));                       \
   }                                                     \
   KIVO_COLL_COMMON_(Key, KIVO_COMMA_TYPE_(::Kivo::ValueColl<Key, Type, Kind>), name, Name)

#define KIVO_ENTITIES(Key, Type, name, Name) \
   KIVO_ENTITIES_OF_KIND(Key, Type, ::Kivo::Ordered, name, Name)

// KIVO_ENTITIES held in a collection of another kind (Kivo::Dense for thousands of entities that
// are walked whole).
#define KIVO_ENTITIES_OF_KIND(Key, Type, Kind, name, Name) \
 public:                                                   \
   ::Kivo::Ptr<Type> name(Key const& k) const {            \
      return name##_.get(k);                               \
   }                                                       \
   ::Kivo::Ptr<Type> name##Is(Key const& k) {              \
      return name##_.is(k);                                \
   }                                                       \
   KIVO_COLL_COMMON_(Key, KIVO_COMMA_TYPE_(::Kivo::Coll<Key, Type, Kind>), name, Name)

// Passes a template type with commas through one macro argument.
#define KIVO_COMMA_TYPE_(...) __VA_ARGS__
