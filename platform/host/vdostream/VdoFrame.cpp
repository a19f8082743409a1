// VdoFrame and VdoBuffer: one frame of a stream's ring, and the error domain of the service.
#include "VdoInternal.h"

#include <memory>

struct _VdoFrame {
    GObject parent_instance;
    stemlib_host::FrameSlot* slot;
};

G_DEFINE_FINAL_TYPE(VdoFrame, vdo_frame, G_TYPE_OBJECT)

static void vdo_frame_finalize(GObject* object) {
    VdoFrame* self = VDO_FRAME(object);
    if (self->slot->finalizer != nullptr) {
        self->slot->finalizer(self);
    }
    std::unique_ptr<stemlib_host::FrameSlot> slot(self->slot);
    self->slot = nullptr;
    stemlib_host::countObject(stemlib_host::ObjectKind::Frame, -1);
    G_OBJECT_CLASS(vdo_frame_parent_class)->finalize(object);
}

static void vdo_frame_class_init(VdoFrameClass* klass) {
    G_OBJECT_CLASS(klass)->finalize = vdo_frame_finalize;
}

static void vdo_frame_init(VdoFrame* self) {
    // No exception may pass through GObject's C code: out of memory ends the process here, as in
    // GLib's own allocations. The frame's pixels are allocated later, where failure is reported.
    self->slot = new (std::nothrow) stemlib_host::FrameSlot();
    if (self->slot == nullptr) {
        g_error("VdoFrame: out of memory");
    }
    stemlib_host::countObject(stemlib_host::ObjectKind::Frame, 1);
}

GQuark vdo_error_quark(void) {
    return g_quark_from_static_string("vdo-error-quark");
}

namespace stemlib_host {

VdoFrame* newRingFrame(gsize capacity, guint id, const void* owner, VdoBufferFinalizer fin) {
    VdoFrame* frame = VDO_FRAME(g_object_new(VDO_TYPE_FRAME, nullptr));
    FrameSlot& slot = *frame->slot;
    try {
        slot.data.resize(capacity);
    } catch (...) {
        g_object_unref(frame);
        throw;
    }
    slot.size = capacity;
    slot.id = id;
    slot.owner = owner;
    slot.finalizer = fin;
    return frame;
}

FrameSlot& frameSlot(VdoFrame* frame) {
    return *frame->slot;
}

} // namespace stemlib_host

gsize vdo_frame_get_size(VdoFrame* self) {
    g_return_val_if_fail(VDO_IS_FRAME(self), 0);
    return self->slot->size;
}

guint vdo_frame_get_sequence_nbr(VdoFrame* self) {
    g_return_val_if_fail(VDO_IS_FRAME(self), 0);
    return static_cast<guint>(self->slot->sequence);
}

guint64 vdo_frame_get_timestamp(VdoFrame* self) {
    g_return_val_if_fail(VDO_IS_FRAME(self), 0);
    return self->slot->timestamp;
}

gpointer vdo_buffer_get_data(VdoBuffer* self) {
    g_return_val_if_fail(VDO_IS_FRAME(self), nullptr);
    return self->slot->data.data();
}

VdoFrame* vdo_buffer_get_frame(VdoBuffer* self) {
    g_return_val_if_fail(VDO_IS_FRAME(self), nullptr);
    return self;
}

guint vdo_buffer_get_id(VdoBuffer* self) {
    g_return_val_if_fail(VDO_IS_FRAME(self), 0);
    return self->slot->id;
}

gsize vdo_buffer_get_capacity(VdoBuffer* self) {
    g_return_val_if_fail(VDO_IS_FRAME(self), 0);
    return self->slot->data.size();
}
