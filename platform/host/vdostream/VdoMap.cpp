// VdoMap: named, typed values.
#include "HostCamera.h"
#include "VdoInternal.h"

#include <vdo-map.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

namespace {

using Value = std::variant<guint32, gint32, gdouble, bool, std::string>;

struct MapImpl {
    // Transparent comparison: looking a name up allocates nothing.
    std::map<std::string, Value, std::less<>> entries;
};

// Converts any numeric entry to T, saturating at T's range; NaN gives 0.
template <typename T>
bool numericValue(const Value& value, T& out) {
    double number = 0.0;
    if (const guint32* u = std::get_if<guint32>(&value)) {
        number = *u;
    } else if (const gint32* i = std::get_if<gint32>(&value)) {
        number = *i;
    } else if (const gdouble* d = std::get_if<gdouble>(&value)) {
        number = *d;
    } else if (const bool* b = std::get_if<bool>(&value)) {
        number = *b ? 1.0 : 0.0;
    } else {
        return false;
    }
    if constexpr (std::is_floating_point_v<T>) {
        out = static_cast<T>(number);
    } else {
        if (std::isnan(number)) {
            out = 0;
        } else if (number >= static_cast<double>(std::numeric_limits<T>::max())) {
            out = std::numeric_limits<T>::max();
        } else if (number <= static_cast<double>(std::numeric_limits<T>::min())) {
            out = std::numeric_limits<T>::min();
        } else {
            out = static_cast<T>(number);
        }
    }
    return true;
}

} // namespace

struct _VdoMap {
    GObject parent_instance;
    MapImpl* impl;
};

G_DEFINE_FINAL_TYPE(VdoMap, vdo_map, G_TYPE_OBJECT)

static void vdo_map_finalize(GObject* object) {
    std::unique_ptr<MapImpl> impl(VDO_MAP(object)->impl);
    VDO_MAP(object)->impl = nullptr;
    stemlib_host::countObject(stemlib_host::ObjectKind::Map, -1);
    G_OBJECT_CLASS(vdo_map_parent_class)->finalize(object);
}

static void vdo_map_class_init(VdoMapClass* klass) {
    G_OBJECT_CLASS(klass)->finalize = vdo_map_finalize;
}

static void vdo_map_init(VdoMap* self) {
    // No exception may pass through GObject's C code: out of memory ends the process here, as in
    // GLib's own allocations.
    self->impl = new (std::nothrow) MapImpl();
    if (self->impl == nullptr) {
        g_error("VdoMap: out of memory");
    }
    stemlib_host::countObject(stemlib_host::ObjectKind::Map, 1);
}

namespace {

const Value* find(const VdoMap* self, const gchar* name) {
    if (self == nullptr || name == nullptr) {
        return nullptr;
    }
    const auto found = self->impl->entries.find(std::string_view(name));
    return found == self->impl->entries.end() ? nullptr : &found->second;
}

void store(VdoMap* self, const gchar* name, Value value) {
    g_return_if_fail(VDO_IS_MAP(self));
    g_return_if_fail(name != nullptr);
    stemlib_host::abortingCall("vdo_map_set",
                               [&] { self->impl->entries[name] = std::move(value); });
}

template <typename T>
T fetch(const VdoMap* self, const gchar* name, T def) {
    const Value* value = find(self, name);
    T result = def;
    if (value == nullptr || !numericValue(*value, result)) {
        return def;
    }
    return result;
}

} // namespace

VdoMap* vdo_map_new(void) {
    return VDO_MAP(g_object_new(VDO_TYPE_MAP, nullptr));
}

gboolean vdo_map_contains(const VdoMap* self, const gchar* name) {
    return find(self, name) != nullptr;
}

void vdo_map_remove(VdoMap* self, const gchar* name) {
    g_return_if_fail(VDO_IS_MAP(self));
    if (name != nullptr) {
        const auto found = self->impl->entries.find(std::string_view(name));
        if (found != self->impl->entries.end()) {
            self->impl->entries.erase(found);
        }
    }
}

gboolean vdo_map_empty(const VdoMap* self) {
    return self == nullptr || self->impl->entries.empty();
}

gsize vdo_map_get_size(const VdoMap* self) {
    return self == nullptr ? 0 : self->impl->entries.size();
}

void vdo_map_set_uint32(VdoMap* self, const gchar* name, guint32 value) {
    store(self, name, Value(value));
}

guint32 vdo_map_get_uint32(const VdoMap* self, const gchar* name, guint32 def) {
    return fetch<guint32>(self, name, def);
}

void vdo_map_set_int32(VdoMap* self, const gchar* name, gint32 value) {
    store(self, name, Value(value));
}

gint32 vdo_map_get_int32(const VdoMap* self, const gchar* name, gint32 def) {
    return fetch<gint32>(self, name, def);
}

void vdo_map_set_double(VdoMap* self, const gchar* name, gdouble value) {
    store(self, name, Value(value));
}

gdouble vdo_map_get_double(const VdoMap* self, const gchar* name, gdouble def) {
    return fetch<gdouble>(self, name, def);
}

void vdo_map_set_boolean(VdoMap* self, const gchar* name, gboolean value) {
    store(self, name, Value(value != FALSE));
}

gboolean vdo_map_get_boolean(const VdoMap* self, const gchar* name, gboolean def) {
    const Value* value = find(self, name);
    double number = 0.0;
    if (value == nullptr || !numericValue(*value, number)) {
        return def;
    }
    return number != 0.0;
}

void vdo_map_set_string(VdoMap* self, const gchar* name, const gchar* value) {
    g_return_if_fail(value != nullptr);
    stemlib_host::abortingCall("vdo_map_set_string",
                               [&] { store(self, name, Value(std::string(value))); });
}

const gchar* vdo_map_get_string(const VdoMap* self, const gchar* name, gsize* size,
                                const gchar* def) {
    const Value* value = find(self, name);
    const std::string* text = value == nullptr ? nullptr : std::get_if<std::string>(value);
    if (text == nullptr) {
        if (size != nullptr) {
            *size = 0;
        }
        return def;
    }
    if (size != nullptr) {
        *size = text->size() + 1;
    }
    return text->c_str();
}
