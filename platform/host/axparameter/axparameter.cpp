// The parameter service, answering from the camera description's "root." entries, with the
// process's own changes kept on top of them.
#include "HostCamera.h"

#include <axsdk/axparameter.h>

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

struct _AXParameter {
    std::string appName;
};

namespace {

using stemlib_host::CameraDescription;

// Changes made through ax_parameter_set, _add and _remove, for the camera in effect. Loading
// another camera description discards them.
struct ParameterStore {
    std::mutex mutex;
    std::shared_ptr<const CameraDescription> camera;
    std::map<std::string, std::string> changed;
    std::vector<std::string> added; // in the order they were added
    std::set<std::string> removed;
};

ParameterStore& store() {
    static ParameterStore s;
    return s;
}

// Called with the store's mutex held.
bool lookupLocked(const ParameterStore& s, const std::string& fullName, std::string& value) {
    if (s.removed.count(fullName) != 0) {
        return false;
    }
    const auto found = s.changed.find(fullName);
    if (found != s.changed.end()) {
        value = found->second;
        return true;
    }
    if (std::optional<std::string> described = s.camera->get(fullName)) {
        value = *described;
        return true;
    }
    return false;
}

// The fully qualified name that name stands for, or "" when there is none.
std::string resolveLocked(const ParameterStore& s, const AXParameter* parameter,
                          const std::string& name) {
    std::vector<std::string> candidates;
    if (name.compare(0, 5, "root.") == 0) {
        candidates.push_back(name);
    } else {
        candidates.push_back("root." + name);
        candidates.push_back("root." + parameter->appName + "." + name);
    }
    std::string value;
    for (const std::string& candidate : candidates) {
        if (lookupLocked(s, candidate, value)) {
            return candidate;
        }
    }
    return std::string();
}

void setError(GError** error, AXParameterErrorCode code, const std::string& message) {
    g_set_error_literal(error, ax_parameter_error_quark(), code, message.c_str());
}

bool injected(const char* call, AXParameterErrorCode code, GError** error) {
    if (std::optional<std::string> message = stemlib_host::takeFailure(call)) {
        setError(error, code, *message);
        return true;
    }
    return false;
}

// The checks that every call on a named parameter makes first: a handle and a name, then the
// value argument when missingValue says that it is null, then a failure requested for call.
// False, with error set, when the call must fail.
bool admitted(const char* call, AXParameterErrorCode failureCode, AXParameter* parameter,
              const gchar* name, const char* missingValue, GError** error) {
    if (parameter == nullptr || name == nullptr || *name == '\0') {
        setError(error, AX_PARAMETER_INVALID_ARG_ERROR, "invalid argument: no handle or no name");
        return false;
    }
    if (missingValue != nullptr) {
        setError(error, AX_PARAMETER_INVALID_ARG_ERROR,
                 std::string("invalid argument: ") + missingValue);
        return false;
    }
    return !injected(call, failureCode, error);
}

// The store for the length of one call: locked, and following the camera in effect (loading
// another camera discards the changes made to the previous one).
class LockedStore {
public:
    LockedStore() : _lock(store().mutex) {
        ParameterStore& s = store();
        std::shared_ptr<const CameraDescription> current = stemlib_host::camera();
        if (current != s.camera) {
            s.camera = std::move(current);
            s.changed.clear();
            s.added.clear();
            s.removed.clear();
        }
    }
    ParameterStore& operator*() const { return store(); }
    ParameterStore* operator->() const { return &store(); }

private:
    std::lock_guard<std::mutex> _lock;
};

} // namespace

GQuark ax_parameter_error_quark(void) {
    return g_quark_from_static_string("axparameter-error-quark");
}

AXParameter* ax_parameter_new(const gchar* app_name, GError** error) {
    if (app_name == nullptr || *app_name == '\0') {
        setError(error, AX_PARAMETER_INVALID_ARG_ERROR, "invalid argument: no application name");
        return nullptr;
    }
    if (injected("ax_parameter_new", AX_PARAMETER_DBUS_SETUP_ERROR, error)) {
        return nullptr;
    }
    auto parameter = std::make_unique<AXParameter>();
    parameter->appName = app_name;
    return parameter.release();
}

void ax_parameter_free(AXParameter* parameter) {
    std::unique_ptr<AXParameter> owned(parameter);
}

gboolean ax_parameter_get(AXParameter* parameter, const gchar* name, gchar** value,
                          GError** error) {
    if (!admitted("ax_parameter_get", AX_PARAMETER_PARAM_GET_ERROR, parameter, name,
                  value == nullptr ? "no place for the value" : nullptr, error)) {
        return FALSE;
    }
    const LockedStore s;
    const std::string fullName = resolveLocked(*s, parameter, name);
    std::string text;
    if (fullName.empty() || !lookupLocked(*s, fullName, text)) {
        setError(error, AX_PARAMETER_PARAM_PATH_ERROR,
                 std::string("parameter ") + name + " does not exist");
        return FALSE;
    }
    *value = g_strdup(text.c_str());
    return TRUE;
}

gboolean ax_parameter_set(AXParameter* parameter, const gchar* name, const gchar* value, gboolean,
                          GError** error) {
    if (!admitted("ax_parameter_set", AX_PARAMETER_PARAM_SET_ERROR, parameter, name,
                  value == nullptr ? "no value" : nullptr, error)) {
        return FALSE;
    }
    const LockedStore s;
    const std::string fullName = resolveLocked(*s, parameter, name);
    if (fullName.empty()) {
        setError(error, AX_PARAMETER_PARAM_PATH_ERROR,
                 std::string("parameter ") + name + " does not exist");
        return FALSE;
    }
    s->changed[fullName] = value;
    return TRUE;
}

gboolean ax_parameter_add(AXParameter* parameter, const gchar* name, const gchar* initial_value,
                          const gchar*, GError** error) {
    if (!admitted("ax_parameter_add", AX_PARAMETER_PARAM_ADDED_ERROR, parameter, name, nullptr,
                  error)) {
        return FALSE;
    }
    const LockedStore s;
    const std::string fullName = "root." + parameter->appName + "." + name;
    std::string existing;
    if (lookupLocked(*s, fullName, existing)) {
        setError(error, AX_PARAMETER_PARAM_ADDED_ERROR,
                 "parameter " + fullName + " exists already");
        return FALSE;
    }
    s->removed.erase(fullName);
    s->changed[fullName] = initial_value == nullptr ? "" : initial_value;
    if (!s->camera->get(fullName)) {
        s->added.push_back(fullName);
    }
    return TRUE;
}

gboolean ax_parameter_remove(AXParameter* parameter, const gchar* name, GError** error) {
    if (!admitted("ax_parameter_remove", AX_PARAMETER_PARAM_PATH_ERROR, parameter, name, nullptr,
                  error)) {
        return FALSE;
    }
    const LockedStore s;
    const std::string fullName = "root." + parameter->appName + "." + name;
    std::string existing;
    if (!lookupLocked(*s, fullName, existing)) {
        setError(error, AX_PARAMETER_PARAM_PATH_ERROR, "parameter " + fullName + " does not exist");
        return FALSE;
    }
    s->changed.erase(fullName);
    s->removed.insert(fullName);
    return TRUE;
}

GList* ax_parameter_list(AXParameter* parameter, GError** error) {
    if (parameter == nullptr) {
        setError(error, AX_PARAMETER_INVALID_ARG_ERROR, "invalid argument: no handle");
        return nullptr;
    }
    if (injected("ax_parameter_list", AX_PARAMETER_PARAM_LIST_ERROR, error)) {
        return nullptr;
    }
    const LockedStore s;
    GList* list = nullptr;
    for (const auto& entry : s->camera->withPrefix("root.")) {
        if (s->removed.count(entry.first) == 0) {
            list = g_list_prepend(list, g_strdup(entry.first.c_str()));
        }
    }
    for (const std::string& name : s->added) {
        if (s->removed.count(name) == 0) {
            list = g_list_prepend(list, g_strdup(name.c_str()));
        }
    }
    return g_list_reverse(list);
}
