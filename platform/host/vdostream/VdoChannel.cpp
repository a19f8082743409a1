// VdoChannel: the camera's channels and their resolutions, from the camera description.
#include "VdoInternal.h"

#include <vdo-channel.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

struct _VdoChannel {
    GObject parent_instance;
    guint id;
};

G_DEFINE_FINAL_TYPE(VdoChannel, vdo_channel, G_TYPE_OBJECT)

static void vdo_channel_finalize(GObject* object) {
    stemlib_host::countObject(stemlib_host::ObjectKind::Channel, -1);
    G_OBJECT_CLASS(vdo_channel_parent_class)->finalize(object);
}

static void vdo_channel_class_init(VdoChannelClass* klass) {
    G_OBJECT_CLASS(klass)->finalize = vdo_channel_finalize;
}

static void vdo_channel_init(VdoChannel* self) {
    self->id = 0;
    stemlib_host::countObject(stemlib_host::ObjectKind::Channel, 1);
}

namespace stemlib_host {

namespace {

bool parseChannelNumber(const std::string& text, unsigned int& number) {
    if (text.empty() || text.size() > 6 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    number = static_cast<unsigned int>(std::strtoul(text.c_str(), nullptr, 10));
    return true;
}

} // namespace

bool cameraChannels(const CameraDescription& camera, std::vector<unsigned int>& channels,
                    GError** error) {
    channels.clear();
    const std::optional<std::string> list = camera.get("channels");
    if (!list) {
        setVdoError(error, VDO_ERROR_NOT_FOUND,
                    "the camera has no video channel (" + camera.origin + " has no \"channels\")");
        return false;
    }
    for (const std::string& item : splitList(*list)) {
        unsigned int number = 0;
        if (!parseChannelNumber(item, number)) {
            setVdoError(error, VDO_ERROR_FAILED,
                        camera.origin + ": channels: \"" + item + "\" is not a channel number");
            return false;
        }
        if (std::find(channels.begin(), channels.end(), number) == channels.end()) {
            channels.push_back(number);
        }
    }
    if (channels.empty()) {
        setVdoError(error, VDO_ERROR_NOT_FOUND,
                    "the camera has no video channel (" + camera.origin + ": channels is empty)");
        return false;
    }
    return true;
}

bool channelResolutions(const CameraDescription& camera, unsigned int channel,
                        std::vector<ChannelResolution>& resolutions, GError** error) {
    resolutions.clear();
    const std::string key = "channel." + std::to_string(channel) + ".resolutions";
    const std::optional<std::string> list = camera.get(key);
    if (!list) {
        setVdoError(error, VDO_ERROR_NOT_FOUND,
                    "no resolutions for channel " + std::to_string(channel) + " (" + camera.origin +
                        " has no \"" + key + "\")");
        return false;
    }
    for (const std::string& item : splitList(*list)) {
        ChannelResolution resolution{0, 0};
        if (!parseSize(item, resolution.width, resolution.height)) {
            setVdoError(error, VDO_ERROR_FAILED,
                        camera.origin + ": " + key + ": \"" + item +
                            "\" is not a size like 1920x1080");
            return false;
        }
        const bool known = std::any_of(resolutions.begin(), resolutions.end(), [&](const auto& r) {
            return r.width == resolution.width && r.height == resolution.height;
        });
        if (!known) {
            resolutions.push_back(resolution);
        }
    }
    if (resolutions.empty()) {
        setVdoError(error, VDO_ERROR_NOT_FOUND,
                    "no resolutions for channel " + std::to_string(channel) + " (" + camera.origin +
                        ": " + key + " is empty)");
        return false;
    }
    std::stable_sort(resolutions.begin(), resolutions.end(), [](const auto& a, const auto& b) {
        const std::uint64_t areaA = std::uint64_t{a.width} * a.height;
        const std::uint64_t areaB = std::uint64_t{b.width} * b.height;
        return areaA != areaB ? areaA > areaB : a.width > b.width;
    });
    return true;
}

} // namespace stemlib_host

namespace {

VdoChannel* newChannel(guint id) {
    VdoChannel* channel = VDO_CHANNEL(g_object_new(VDO_TYPE_CHANNEL, nullptr));
    channel->id = id;
    return channel;
}

// "16:9" into 16 and 9.
bool parseRatio(const char* text, unsigned long& a, unsigned long& b) {
    char colon = 0;
    char extra = 0;
    return std::sscanf(text, "%lu%c%lu%c", &a, &colon, &b, &extra) == 3 && colon == ':' && a > 0 &&
           b > 0;
}

GList* allChannels(GError** error) {
    using namespace stemlib_host;
    if (injectedVdoFailure("vdo_channel_get_all", error)) {
        return nullptr;
    }
    std::vector<unsigned int> numbers;
    if (!cameraChannels(*camera(), numbers, error)) {
        return nullptr;
    }
    GList* list = nullptr;
    for (unsigned int number : numbers) {
        list = g_list_prepend(list, newChannel(number));
    }
    return g_list_reverse(list);
}

} // namespace

GList* vdo_channel_get_all(GError** error) {
    return stemlib_host::guardedCall("vdo_channel_get_all", static_cast<GList*>(nullptr), error,
                                     [&] { return allChannels(error); });
}

namespace {

VdoChannel* channelOf(guint channel_nbr, GError** error) {
    using namespace stemlib_host;
    if (injectedVdoFailure("vdo_channel_get", error)) {
        return nullptr;
    }
    std::vector<unsigned int> numbers;
    if (!cameraChannels(*camera(), numbers, error)) {
        return nullptr;
    }
    if (std::find(numbers.begin(), numbers.end(), channel_nbr) == numbers.end()) {
        setVdoError(error, VDO_ERROR_NOT_FOUND,
                    "channel " + std::to_string(channel_nbr) + " does not exist");
        return nullptr;
    }
    return newChannel(channel_nbr);
}

} // namespace

VdoChannel* vdo_channel_get(guint channel_nbr, GError** error) {
    return stemlib_host::guardedCall("vdo_channel_get", static_cast<VdoChannel*>(nullptr), error,
                                     [&] { return channelOf(channel_nbr, error); });
}

guint vdo_channel_get_id(VdoChannel* self) {
    g_return_val_if_fail(VDO_IS_CHANNEL(self), 0);
    return self->id;
}

namespace {

VdoResolutionSet* resolutionsOf(VdoChannel* self, VdoMap* filter, GError** error) {
    using namespace stemlib_host;
    if (!VDO_IS_CHANNEL(self)) {
        setVdoError(error, VDO_ERROR_INVALID_ARGUMENT, "not a channel");
        return nullptr;
    }
    if (injectedVdoFailure("vdo_channel_get_resolutions", error)) {
        return nullptr;
    }
    std::vector<ChannelResolution> resolutions;
    if (!channelResolutions(*camera(), self->id, resolutions, error)) {
        return nullptr;
    }
    if (const gchar* ratio = vdo_map_get_string(filter, "aspect_ratio", nullptr, nullptr)) {
        unsigned long a = 0;
        unsigned long b = 0;
        if (!parseRatio(ratio, a, b)) {
            setVdoError(error, VDO_ERROR_INVALID_ARGUMENT,
                        std::string("aspect_ratio \"") + ratio + "\" is not like 16:9");
            return nullptr;
        }
        resolutions.erase(std::remove_if(resolutions.begin(), resolutions.end(),
                                         [&](const ChannelResolution& r) {
                                             return std::uint64_t{r.width} * b !=
                                                    std::uint64_t{r.height} * a;
                                         }),
                          resolutions.end());
    }
    if (const gchar* select = vdo_map_get_string(filter, "select", nullptr, nullptr)) {
        if (std::strcmp(select, "minmax") == 0) {
            if (resolutions.size() > 2) {
                resolutions = {resolutions.front(), resolutions.back()};
            }
        } else if (std::strcmp(select, "all") != 0) {
            setVdoError(error, VDO_ERROR_INVALID_ARGUMENT,
                        std::string("select \"") + select + "\" is neither \"all\" nor \"minmax\"");
            return nullptr;
        }
    }
    const gsize bytes = sizeof(VdoResolutionSet) + resolutions.size() * sizeof(VdoResolution);
    VdoResolutionSet* set = static_cast<VdoResolutionSet*>(g_malloc0(bytes));
    set->count = resolutions.size();
    for (std::size_t i = 0; i < resolutions.size(); ++i) {
        set->resolutions[i].width = resolutions[i].width;
        set->resolutions[i].height = resolutions[i].height;
    }
    return set;
}

} // namespace

VdoResolutionSet* vdo_channel_get_resolutions(VdoChannel* self, VdoMap* filter, GError** error) {
    return stemlib_host::guardedCall("vdo_channel_get_resolutions",
                                     static_cast<VdoResolutionSet*>(nullptr), error,
                                     [&] { return resolutionsOf(self, filter, error); });
}
