/**
 * SECTION:element-okuagc
 * @title: okuagc
 * @short_description: drives an upstream volume so that speech lands in the gain control's band
 *
 * okuagc passes the audio through untouched and acts as the gain control's
 * host for a volume upstream of it. It takes the audio as okuvad does, in
 * every format, channel count and rate its caps list.
 *
 * The volume is that of the element named by #GstOkuAgc:volume-element
 * (anywhere in the pipeline), or else of the nearest upstream element with
 * the #GstStreamVolume interface (pulsesrc, volume, ...), found through bins
 * and ghost pads. For each buffer the element reads that volume, so that a
 * change made by a person counts, gives the gain control volume / max-volume
 * (held to 0..1) as the gain, and sets the gain it proposes times max-volume
 * when the gain control says the gain changed.
 *
 * Each decision is posted as an `oku-agc` element message: #guint64
 * `stream-time` and #guint64 `running-time` (the end of the buffer that
 * completed the decision), #gchararray `control` (the library's name of the
 * decision, such as `speech_too_low`), #gdouble `volume-before` and #gdouble
 * `volume-after` (linear), #gdouble `pause-db` and #gdouble `speech-db` (dB
 * of frame power).
 *
 * Buffers marked GAP and a muted volume element give the gain control
 * nothing to hear: digital silence would read as a microphone turned far
 * down. A float sample that is NaN or infinite is silence to the gain
 * control: #GstOkuAgc:nonfinite counts them, and the first posts a warning.
 * Without a volume element the element takes each proposal as applied,
 * starting at max-volume, and only posts the messages. A flushing seek or
 * new caps start a new gain control.
 *
 * ## Example launch lines
 * |[
 * gst-launch-1.0 -m pulsesrc ! okuagc ! okuvad ! fakesink
 * gst-launch-1.0 -m pipewiresrc ! volume name=gain ! okuagc volume-element=gain max-volume=4 ! autoaudiosink
 * ]|
 * The first drives pulsesrc's stream volume; the second a software gain of up to 4x.
 */
#include "gstoku.h"

#include <gst/audio/audio.h>
#include <gst/audio/streamvolume.h>

GST_DEBUG_CATEGORY_STATIC(gst_oku_agc_debug);
#define GST_CAT_DEFAULT gst_oku_agc_debug

#define DEFAULT_MAX_VOLUME 1.0

enum { PROP_0, PROP_MAX_VOLUME, PROP_VOLUME_ELEMENT, PROP_NONFINITE, PROP_SETTINGS };

struct _GstOkuAgc {
    GstAudioFilter parent;

    /* properties (object lock) */
    GstOkuSettings settings;
    gdouble max_volume;
    gchar* volume_element;
    gboolean lookup; /* find the volume element again before the next buffer */
    guint64 nonfinite; /* float samples that were not finite, since start */

    /* streaming (stream lock); the caps in force are the audio filter's info */
    oku_agc* agc; /* NULL between runs */
    guint64 run_nonfinite; /* the run's gain control's count of them */
    GstOkuTimeline timeline;
    GWeakRef target;  /* the volume element */
    gboolean have_target;
    gdouble assumed;  /* the volume in force without a volume element */
};

G_DEFINE_TYPE(GstOkuAgc, gst_oku_agc, GST_TYPE_AUDIO_FILTER)
GST_ELEMENT_REGISTER_DEFINE(okuagc, "okuagc", GST_RANK_NONE, GST_TYPE_OKU_AGC)

/* ---- finding the volume element -------------------------------------------- */

/* The element whose source pad feeds a sink pad, seen through ghost pads. */
static GstElement* upstream_of(GstPad* sinkpad)
{
    GstPad* pad = gst_pad_get_peer(sinkpad);
    for (int hops = 0; pad && hops < 64; hops++) {
        GstPad* next = NULL;
        if (GST_IS_GHOST_PAD(pad)) {
            /* The source pad of a bin: go inside to what it stands for. */
            next = gst_ghost_pad_get_target(GST_GHOST_PAD(pad));
        } else if (GST_IS_PROXY_PAD(pad)) {
            /* Inside a bin, fed through its ghost sink pad: go out to what feeds the bin. */
            GstProxyPad* ghost = gst_proxy_pad_get_internal(GST_PROXY_PAD(pad));
            if (ghost) {
                next = gst_pad_get_peer(GST_PAD(ghost));
                gst_object_unref(ghost);
            }
        } else {
            GstElement* element = gst_pad_get_parent_element(pad);
            gst_object_unref(pad);
            return element;
        }
        gst_object_unref(pad);
        pad = next;
    }
    if (pad)
        gst_object_unref(pad);
    return NULL;
}

/* The nearest element upstream (breadth first) with the GstStreamVolume interface. */
static GstElement* find_upstream_volume(GstOkuAgc* self)
{
    GQueue queue = G_QUEUE_INIT;
    GHashTable* seen = g_hash_table_new(NULL, NULL);
    GstElement* found = NULL;
    g_queue_push_tail(&queue, gst_object_ref(self));
    while (!g_queue_is_empty(&queue)) {
        GstElement* element = g_queue_pop_head(&queue);
        if (!found && element != GST_ELEMENT(self) && GST_IS_STREAM_VOLUME(element))
            found = gst_object_ref(element);
        if (!found && g_hash_table_size(seen) < 256) {
            GstIterator* it = gst_element_iterate_sink_pads(element);
            GValue item = G_VALUE_INIT;
            while (gst_iterator_next(it, &item) == GST_ITERATOR_OK) {
                GstElement* up = upstream_of(GST_PAD(g_value_get_object(&item)));
                if (up && !g_hash_table_contains(seen, up)) {
                    g_hash_table_add(seen, up);
                    g_queue_push_tail(&queue, up);
                } else if (up) {
                    gst_object_unref(up);
                }
                g_value_reset(&item);
            }
            g_value_unset(&item);
            gst_iterator_free(it);
        }
        gst_object_unref(element);
    }
    g_hash_table_destroy(seen);
    return found;
}

/* The element of that name in the whole pipeline. */
static GstElement* find_named(GstOkuAgc* self, const gchar* name)
{
    GstObject* top = gst_object_ref(self);
    GstObject* parent;
    while ((parent = gst_object_get_parent(top))) {
        gst_object_unref(top);
        top = parent;
    }
    GstElement* found = NULL;
    if (GST_IS_BIN(top))
        found = gst_bin_get_by_name(GST_BIN(top), name);
    gst_object_unref(top);
    return found;
}

static gboolean has_volume(GstElement* element)
{
    if (GST_IS_STREAM_VOLUME(element))
        return TRUE;
    GParamSpec* param = g_object_class_find_property(G_OBJECT_GET_CLASS(element), "volume");
    return param && param->value_type == G_TYPE_DOUBLE && (param->flags & G_PARAM_READWRITE) == G_PARAM_READWRITE;
}

static GstElement* volume_element(GstOkuAgc* self)
{
    GST_OBJECT_LOCK(self);
    const gboolean lookup = self->lookup;
    gchar* name = g_strdup(self->volume_element);
    self->lookup = FALSE;
    GST_OBJECT_UNLOCK(self);
    GstElement* element = NULL;
    if (!lookup) {
        element = g_weak_ref_get(&self->target);
        if (element || !self->have_target) {
            g_free(name);
            return element; /* the one found before, or none */
        }
        /* The element found before is gone: look again. */
    }
    if (name && name[0]) {
        element = find_named(self, name);
        if (!element) {
            GST_ELEMENT_WARNING(self, CORE, FAILED, ("No element named \"%s\" in the pipeline", name),
                                ("the gain control's proposals are only posted"));
        } else if (!has_volume(element)) {
            GST_ELEMENT_WARNING(self, CORE, FAILED, ("Element \"%s\" has no volume", name),
                                ("it neither implements GstStreamVolume nor has a double \"volume\" property"));
            gst_clear_object(&element);
        }
    } else {
        element = find_upstream_volume(self);
    }
    g_free(name);
    if (element)
        GST_INFO_OBJECT(self, "driving the volume of %s", GST_OBJECT_NAME(element));
    else
        GST_INFO_OBJECT(self, "no volume element: posting proposals only");
    g_weak_ref_set(&self->target, element);
    self->have_target = element != NULL;
    return element;
}

static gdouble get_volume(GstElement* element)
{
    if (GST_IS_STREAM_VOLUME(element))
        return gst_stream_volume_get_volume(GST_STREAM_VOLUME(element), GST_STREAM_VOLUME_FORMAT_LINEAR);
    gdouble v = 0;
    g_object_get(element, "volume", &v, NULL);
    return v;
}

static void set_volume(GstElement* element, gdouble v)
{
    if (GST_IS_STREAM_VOLUME(element))
        gst_stream_volume_set_volume(GST_STREAM_VOLUME(element), GST_STREAM_VOLUME_FORMAT_LINEAR, v);
    else
        g_object_set(element, "volume", v, NULL);
}

/* ---- runs --------------------------------------------------------------------- */

static void end_run(GstOkuAgc* self)
{
    if (self->agc)
        oku_agc_destroy(self->agc);
    self->agc = NULL;
}

static gboolean start_run(GstOkuAgc* self)
{
    gchar* params = NULL;
    if (!gst_oku_settings_check(GST_ELEMENT(self), &self->settings, FALSE, &params))
        return FALSE;
    const GstAudioInfo* info = GST_AUDIO_FILTER_INFO(self);
    const int rate = GST_AUDIO_INFO_RATE(info), channels = GST_AUDIO_INFO_CHANNELS(info);
    if (oku_agc_open(rate, channels, params, 0, &self->agc) != OKU_OK) {
        GST_ELEMENT_ERROR(self, LIBRARY, INIT, ("Cannot make the gain control: %s", oku_last_error()),
                          ("%d Hz, %d channels, parameter string \"%s\"", rate, channels, params));
        g_free(params);
        self->agc = NULL;
        return FALSE;
    }
    g_free(params);
    self->run_nonfinite = 0;
    gst_oku_timeline_start(&self->timeline);
    GST_OBJECT_LOCK(self);
    self->assumed = self->max_volume;
    GST_OBJECT_UNLOCK(self);
    return TRUE;
}

/* New caps start a new gain control, and the volume element is looked for again. */
static gboolean gst_oku_agc_setup(GstAudioFilter* filter, const GstAudioInfo* info)
{
    GstOkuAgc* self = GST_OKU_AGC(filter);
    if (!gst_audio_info_is_equal(info, GST_AUDIO_FILTER_INFO(filter)))
        end_run(self);
    GST_OBJECT_LOCK(self);
    self->lookup = TRUE;
    GST_OBJECT_UNLOCK(self);
    return TRUE;
}

static GstFlowReturn gst_oku_agc_transform_ip(GstBaseTransform* trans, GstBuffer* buf)
{
    GstOkuAgc* self = GST_OKU_AGC(trans);
    if (!self->agc && !start_run(self))
        return GST_FLOW_ERROR;

    GstMapInfo map;
    if (!gst_buffer_map(buf, &map, GST_MAP_READ)) {
        GST_ELEMENT_ERROR(self, RESOURCE, READ, (NULL), ("cannot map a buffer"));
        return GST_FLOW_ERROR;
    }
    const GstAudioInfo* info = GST_AUDIO_FILTER_INFO(self);
    const guint64 frames = map.size / (guint)GST_AUDIO_INFO_BPF(info);
    const size_t n = (size_t)frames * (size_t)GST_AUDIO_INFO_CHANNELS(info);
    gst_oku_timeline_add(&self->timeline, GST_AUDIO_FILTER(self), buf);
    self->timeline.samples += frames;
    if (GST_BUFFER_FLAG_IS_SET(buf, GST_BUFFER_FLAG_GAP)) {
        /* A gap holds no captured audio: its silence says nothing about the
         * microphone's level, so the gain control does not hear it. */
        gst_buffer_unmap(buf, &map);
        return GST_FLOW_OK;
    }

    GstElement* target = volume_element(self);
    GST_OBJECT_LOCK(self);
    const gdouble max_volume = self->max_volume;
    gdouble before = self->assumed;
    GST_OBJECT_UNLOCK(self);
    if (target) {
        /* A muted microphone gives silence that says nothing about its level. */
        if (GST_IS_STREAM_VOLUME(target) && gst_stream_volume_get_mute(GST_STREAM_VOLUME(target))) {
            gst_object_unref(target);
            gst_buffer_unmap(buf, &map);
            return GST_FLOW_OK;
        }
        before = get_volume(target);
    }
    const double gain = CLAMP(before / max_volume, 0.0, 1.0);
    double proposed = gain;
    oku_agc_decision decision;
    const int status = GST_OKU_IS_FLOAT(info)
                           ? oku_agc_process_f32(self->agc, (const float*)map.data, n, gain, &proposed)
                           : oku_agc_process(self->agc, (const int16_t*)map.data, n, gain, &proposed);
    gst_buffer_unmap(buf, &map);
    if (status != OKU_OK || oku_agc_info(self->agc, &decision) != OKU_OK) {
        gst_clear_object(&target);
        GST_ELEMENT_ERROR(self, LIBRARY, FAILED, ("The gain control failed: %s", oku_last_error()), (NULL));
        return GST_FLOW_ERROR;
    }
    uint64_t nonfinite = 0;
    if (GST_OKU_IS_FLOAT(info) && oku_agc_nonfinite(self->agc, &nonfinite) == OKU_OK)
        gst_oku_count_nonfinite(GST_ELEMENT(self), &self->nonfinite, &self->run_nonfinite, nonfinite);
    if (!decision.updated) {
        gst_clear_object(&target);
        return GST_FLOW_OK;
    }

    gdouble after = before;
    if (decision.changed) {
        after = proposed * max_volume;
        if (target)
            set_volume(target, after);
        GST_OBJECT_LOCK(self);
        self->assumed = after;
        GST_OBJECT_UNLOCK(self);
    }
    gst_clear_object(&target);

    guint64 stream_time, running_time;
    gst_oku_timeline_times(&self->timeline, GST_AUDIO_FILTER(self), self->timeline.samples, &stream_time,
                           &running_time);
    const char* control = oku_agc_control_name(decision.control);
    GST_DEBUG_OBJECT(self, "%s: volume %g -> %g", control, before, after);
    GstStructure* s = gst_structure_new(
        "oku-agc", "stream-time", G_TYPE_UINT64, stream_time, "running-time", G_TYPE_UINT64, running_time, "control",
        G_TYPE_STRING, control ? control : "unknown", "volume-before", G_TYPE_DOUBLE, before, "volume-after",
        G_TYPE_DOUBLE, after, "pause-db", G_TYPE_DOUBLE, (double)decision.pause_db, "speech-db", G_TYPE_DOUBLE,
        (double)decision.speech_db, NULL);
    gst_element_post_message(GST_ELEMENT(self), gst_message_new_element(GST_OBJECT(self), s));
    return GST_FLOW_OK;
}

static gboolean gst_oku_agc_sink_event(GstBaseTransform* trans, GstEvent* event)
{
    GstOkuAgc* self = GST_OKU_AGC(trans);
    /* What came before a seek says nothing about the audio after it. */
    if (GST_EVENT_TYPE(event) == GST_EVENT_FLUSH_STOP)
        end_run(self);
    return GST_BASE_TRANSFORM_CLASS(gst_oku_agc_parent_class)->sink_event(trans, event);
}

static gboolean gst_oku_agc_start(GstBaseTransform* trans)
{
    GstOkuAgc* self = GST_OKU_AGC(trans);
    if (!gst_oku_settings_check(GST_ELEMENT(self), &self->settings, TRUE, NULL))
        return FALSE;
    GST_OBJECT_LOCK(self);
    self->lookup = TRUE;
    self->nonfinite = 0;
    GST_OBJECT_UNLOCK(self);
    return TRUE;
}

static gboolean gst_oku_agc_stop(GstBaseTransform* trans)
{
    GstOkuAgc* self = GST_OKU_AGC(trans);
    end_run(self);
    g_weak_ref_set(&self->target, NULL);
    self->have_target = FALSE;
    return TRUE;
}

/* ---- properties and class ------------------------------------------------------ */

static void gst_oku_agc_set_property(GObject* object, guint prop_id, const GValue* value, GParamSpec* pspec)
{
    GstOkuAgc* self = GST_OKU_AGC(object);
    GST_OBJECT_LOCK(self);
    switch (prop_id) {
    case PROP_MAX_VOLUME:
        self->max_volume = g_value_get_double(value);
        break;
    case PROP_VOLUME_ELEMENT:
        g_free(self->volume_element);
        self->volume_element = g_value_dup_string(value);
        self->lookup = TRUE;
        break;
    default:
        if (!gst_oku_settings_set(&self->settings, PROP_SETTINGS, prop_id, value))
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void gst_oku_agc_get_property(GObject* object, guint prop_id, GValue* value, GParamSpec* pspec)
{
    GstOkuAgc* self = GST_OKU_AGC(object);
    GST_OBJECT_LOCK(self);
    switch (prop_id) {
    case PROP_MAX_VOLUME:
        g_value_set_double(value, self->max_volume);
        break;
    case PROP_VOLUME_ELEMENT:
        g_value_set_string(value, self->volume_element);
        break;
    case PROP_NONFINITE:
        g_value_set_uint64(value, self->nonfinite);
        break;
    default:
        if (!gst_oku_settings_get(&self->settings, PROP_SETTINGS, prop_id, value))
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void gst_oku_agc_finalize(GObject* object)
{
    GstOkuAgc* self = GST_OKU_AGC(object);
    end_run(self);
    g_weak_ref_clear(&self->target);
    g_free(self->volume_element);
    gst_oku_settings_clear(&self->settings);
    G_OBJECT_CLASS(gst_oku_agc_parent_class)->finalize(object);
}

static void gst_oku_agc_class_init(GstOkuAgcClass* klass)
{
    GObjectClass* gobject_class = G_OBJECT_CLASS(klass);
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* trans_class = GST_BASE_TRANSFORM_CLASS(klass);
    GstAudioFilterClass* filter_class = GST_AUDIO_FILTER_CLASS(klass);
    GST_DEBUG_CATEGORY_INIT(gst_oku_agc_debug, "okuagc", 0, "oku automatic gain control");

    gobject_class->set_property = gst_oku_agc_set_property;
    gobject_class->get_property = gst_oku_agc_get_property;
    gobject_class->finalize = gst_oku_agc_finalize;

    g_object_class_install_property(
        gobject_class, PROP_MAX_VOLUME,
        g_param_spec_double("max-volume", "Maximum volume",
                            "Linear volume of the volume element that counts as full gain (the gain is volume / "
                            "max-volume, held to 0..1)",
                            0.001, 10.0, DEFAULT_MAX_VOLUME,
                            G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING));
    g_object_class_install_property(
        gobject_class, PROP_VOLUME_ELEMENT,
        g_param_spec_string("volume-element", "Volume element",
                            "Name of the element whose volume to drive, anywhere in the pipeline (default: the "
                            "nearest upstream element with the GstStreamVolume interface)",
                            NULL, G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING));
    g_object_class_install_property(gobject_class, PROP_NONFINITE,
                                    g_param_spec_uint64("nonfinite", "Non-finite samples", GST_OKU_NONFINITE_BLURB, 0,
                                                        G_MAXUINT64, 0, G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
    gst_oku_settings_install(gobject_class, OKU_SERVICE_AGC, PROP_SETTINGS);

    GstCaps* caps = gst_oku_caps_new();
    gst_audio_filter_class_add_pad_templates(filter_class, caps);
    gst_caps_unref(caps);
    gst_element_class_set_static_metadata(element_class, "Automatic gain control", "Filter/Effect/Audio",
                                          "Drives an upstream volume so that speech lands in the gain control's band",
                                          "oku developers");
    gst_element_class_add_static_metadata(element_class, GST_ELEMENT_METADATA_DOC_URI, OKU_GST_MANUAL);

    trans_class->transform_ip = GST_DEBUG_FUNCPTR(gst_oku_agc_transform_ip);
    trans_class->transform_ip_on_passthrough = TRUE;
    trans_class->passthrough_on_same_caps = TRUE;
    trans_class->sink_event = GST_DEBUG_FUNCPTR(gst_oku_agc_sink_event);
    trans_class->start = GST_DEBUG_FUNCPTR(gst_oku_agc_start);
    trans_class->stop = GST_DEBUG_FUNCPTR(gst_oku_agc_stop);
    filter_class->setup = GST_DEBUG_FUNCPTR(gst_oku_agc_setup);
}

static void gst_oku_agc_init(GstOkuAgc* self)
{
    gst_oku_settings_init(&self->settings, OKU_SERVICE_AGC);
    self->max_volume = DEFAULT_MAX_VOLUME;
    self->assumed = DEFAULT_MAX_VOLUME;
    g_weak_ref_init(&self->target, NULL);
    gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), TRUE);
}
