/*
 * gstoku.c - the plugin: registers okuvad and okuagc, and holds what both
 * elements share (caps, settings properties, the position-to-time mapping).
 */
#include "gstoku.h"

#include <gst/audio/audio.h>
#include <string.h>

static void append_int(GValue* list, int v)
{
    GValue item = G_VALUE_INIT;
    g_value_init(&item, G_TYPE_INT);
    g_value_set_int(&item, v);
    gst_value_list_append_and_take_value(list, &item);
}

static void append_string(GValue* list, const char* s)
{
    GValue item = G_VALUE_INIT;
    g_value_init(&item, G_TYPE_STRING);
    g_value_set_string(&item, s);
    gst_value_list_append_and_take_value(list, &item);
}

GstCaps* gst_oku_caps_new(void)
{
    GstCaps* caps = gst_caps_new_empty_simple("audio/x-raw");
    GValue list = G_VALUE_INIT;
    g_value_init(&list, GST_TYPE_LIST);
    append_string(&list, GST_AUDIO_NE(S16));
    append_string(&list, GST_AUDIO_NE(F32));
    gst_caps_set_value(caps, "format", &list);
    g_value_unset(&list);
    gst_caps_set_simple(caps, "layout", G_TYPE_STRING, "interleaved", NULL);

    size_t count = 0;
    const int* rates = oku_input_rates(&count);
    g_value_init(&list, GST_TYPE_LIST);
    for (size_t i = 0; i < count; i++)
        append_int(&list, rates[i]);
    gst_caps_set_value(caps, "rate", &list);
    g_value_unset(&list);
    gst_caps_set_simple(caps, "channels", GST_TYPE_INT_RANGE, 1, oku_max_channels(), NULL);
    return caps;
}

/* ---- settings as properties ---------------------------------------------- */

void gst_oku_settings_install(GObjectClass* klass, int service, guint first_id)
{
    const GParamFlags flags = G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY;
    g_object_class_install_property(
        klass, first_id,
        g_param_spec_string("params", "Parameter string",
                            "Settings as \"Key=Value;...\" (keys as in the library's settings table); a typed "
                            "property set explicitly overrides the same key here; a key no setting has is "
                            "ignored, with a warning on the bus when the element starts",
                            NULL, flags));
    size_t count = 0;
    const oku_setting* table = oku_settings(service, &count);
    for (size_t i = 0; i < count; i++) {
        const oku_setting* s = &table[i];
        gchar* blurb = s->unit[0] ? g_strdup_printf("%s (%s; parameter string key %s)", s->meaning, s->unit, s->key)
                                  : g_strdup_printf("%s (parameter string key %s)", s->meaning, s->key);
        GParamSpec* param;
        const GParamFlags f = G_PARAM_READWRITE | G_PARAM_STATIC_NAME | G_PARAM_STATIC_NICK | GST_PARAM_MUTABLE_READY;
        if (s->type == OKU_SETTING_INT)
            param = g_param_spec_int(s->name, s->key, blurb, G_MININT, G_MAXINT, (gint)s->default_value, f);
        else
            param = g_param_spec_double(s->name, s->key, blurb, -G_MAXDOUBLE, G_MAXDOUBLE, s->default_value, f);
        g_free(blurb);
        g_object_class_install_property(klass, first_id + 1 + (guint)i, param);
    }
}

void gst_oku_settings_init(GstOkuSettings* s, int service)
{
    s->service = service;
    s->table = oku_settings(service, &s->count);
    s->params = NULL;
    s->is_set = g_new0(gboolean, s->count);
    s->values = g_new0(gdouble, s->count);
}

void gst_oku_settings_clear(GstOkuSettings* s)
{
    g_clear_pointer(&s->params, g_free);
    g_clear_pointer(&s->is_set, g_free);
    g_clear_pointer(&s->values, g_free);
}

gboolean gst_oku_settings_set(GstOkuSettings* s, guint first_id, guint prop_id, const GValue* value)
{
    if (prop_id == first_id) {
        g_free(s->params);
        s->params = g_value_dup_string(value);
        return TRUE;
    }
    if (prop_id <= first_id || prop_id - first_id - 1 >= s->count)
        return FALSE;
    const size_t i = prop_id - first_id - 1;
    s->values[i] = s->table[i].type == OKU_SETTING_INT ? (gdouble)g_value_get_int(value) : g_value_get_double(value);
    s->is_set[i] = TRUE;
    return TRUE;
}

gboolean gst_oku_settings_get(const GstOkuSettings* s, guint first_id, guint prop_id, GValue* value)
{
    if (prop_id == first_id) {
        g_value_set_string(value, s->params);
        return TRUE;
    }
    if (prop_id <= first_id || prop_id - first_id - 1 >= s->count)
        return FALSE;
    /* The value the service would take: set explicitly, else from "params",
     * else the default (also when "params" does not read). */
    const size_t i = prop_id - first_id - 1;
    double v = s->table[i].default_value;
    if (s->is_set[i]) {
        v = s->values[i];
    } else if (oku_setting_value(s->service, s->params, s->table[i].key, &v) != OKU_OK) {
        v = s->table[i].default_value;
    }
    if (s->table[i].type == OKU_SETTING_INT)
        g_value_set_int(value, (gint)CLAMP(v, (double)G_MININT, (double)G_MAXINT));
    else
        g_value_set_double(value, v);
    return TRUE;
}

gchar* gst_oku_settings_string(const GstOkuSettings* s)
{
    GString* str = g_string_new(NULL);
    for (size_t i = 0; i < s->count; i++) {
        if (!s->is_set[i])
            continue;
        if (s->table[i].type == OKU_SETTING_INT) {
            g_string_append_printf(str, "%s=%d;", s->table[i].key, (int)s->values[i]);
        } else {
            /* Shortest text that reads back as the same double, whatever the locale. */
            char buf[G_ASCII_DTOSTR_BUF_SIZE];
            g_string_append_printf(str, "%s=%s;", s->table[i].key, g_ascii_dtostr(buf, sizeof buf, s->values[i]));
        }
    }
    if (s->params)
        g_string_append(str, s->params);
    return g_string_free(str, FALSE);
}

static void collect_key(void* user, const char* key, const char* value)
{
    GString* keys = user;
    (void)value;
    g_string_append_printf(keys, "%s%s", keys->len ? ", " : "", key);
}

gboolean gst_oku_settings_check(GstElement* element, GstOkuSettings* s, gboolean warn_unknown, gchar** params)
{
    GST_OBJECT_LOCK(element);
    gchar* p = gst_oku_settings_string(s);
    GST_OBJECT_UNLOCK(element);
    if (oku_params_check(s->service, p) != OKU_OK) {
        GST_ELEMENT_ERROR(element, LIBRARY, SETTINGS, ("Invalid settings: %s", oku_last_error()),
                          ("parameter string \"%s\"", p));
        g_free(p);
        return FALSE;
    }
    if (warn_unknown) {
        GString* keys = g_string_new(NULL);
        size_t count = 0;
        if (oku_params_unknown(s->service, p, collect_key, keys, &count) == OKU_OK && count > 0)
            GST_ELEMENT_WARNING(element, LIBRARY, SETTINGS,
                                ("Unknown setting %s in params: %s", count == 1 ? "key" : "keys", keys->str),
                                ("the %s ignores %s; parameter string \"%s\"",
                                 s->service == OKU_SERVICE_VAD ? "analyzer" : "gain control",
                                 count == 1 ? "it" : "them", p));
        g_string_free(keys, TRUE);
    }
    if (params)
        *params = p;
    else
        g_free(p);
    return TRUE;
}

void gst_oku_count_nonfinite(GstElement* element, guint64* total, guint64* counted, guint64 count)
{
    if (count == *counted)
        return;
    GST_OBJECT_LOCK(element);
    const gboolean first = *total == 0;
    *total += count - *counted;
    GST_OBJECT_UNLOCK(element);
    *counted = count;
    if (first)
        GST_ELEMENT_WARNING(element, STREAM, FORMAT, ("The audio holds NaN or infinite samples"),
                            ("they are taken as silence; the property \"nonfinite\" counts them"));
}

/* ---- positions as times --------------------------------------------------- */

#define GST_OKU_ALIGNMENT (40 * GST_MSECOND)

void gst_oku_timeline_start(GstOkuTimeline* t)
{
    t->samples = 0;
    t->n_anchors = 0;
}

static void timeline_anchor(GstOkuTimeline* t, guint64 position, GstClockTime time)
{
    if (t->n_anchors == GST_OKU_ANCHORS) {
        /* The oldest anchor goes: a run with this many breaks in its timestamps
         * dates what lies before the oldest kept one from it. */
        memmove(&t->anchors[0], &t->anchors[1], sizeof t->anchors[0] * (GST_OKU_ANCHORS - 1));
        t->n_anchors--;
    }
    t->anchors[t->n_anchors].position = position;
    t->anchors[t->n_anchors].time = time;
    t->n_anchors++;
}

void gst_oku_timeline_add(GstOkuTimeline* t, GstAudioFilter* filter, GstBuffer* buf)
{
    const GstSegment* segment = &GST_BASE_TRANSFORM(filter)->segment;
    const GstClockTime pts = GST_BUFFER_PTS(buf);
    if (t->n_anchors == 0) {
        GstClockTime start = 0;
        if (GST_CLOCK_TIME_IS_VALID(pts))
            start = pts;
        else if (segment->format == GST_FORMAT_TIME)
            start = segment->start;
        timeline_anchor(t, t->samples, start);
        return;
    }
    if (!GST_CLOCK_TIME_IS_VALID(pts))
        return;
    const GstClockTime expected = gst_oku_timeline_time(t, filter, t->samples);
    const GstClockTime off = pts > expected ? pts - expected : expected - pts;
    const GstClockTime sample = gst_util_uint64_scale_int_ceil(GST_SECOND, 1, GST_AUDIO_FILTER_RATE(filter));
    if (off > GST_OKU_ALIGNMENT || (GST_BUFFER_IS_DISCONT(buf) && off > sample))
        timeline_anchor(t, t->samples, pts);
}

GstClockTime gst_oku_timeline_time(const GstOkuTimeline* t, GstAudioFilter* filter, guint64 position)
{
    const int rate = GST_AUDIO_FILTER_RATE(filter);
    if (t->n_anchors == 0 || rate <= 0)
        return GST_CLOCK_TIME_NONE;
    guint i = t->n_anchors - 1;
    while (i > 0 && t->anchors[i].position > position)
        i--;
    const GstOkuAnchor* a = &t->anchors[i];
    if (position >= a->position)
        return a->time + gst_util_uint64_scale_int(position - a->position, GST_SECOND, rate);
    /* Before the oldest anchor kept. */
    const GstClockTime back = gst_util_uint64_scale_int(a->position - position, GST_SECOND, rate);
    return a->time > back ? a->time - back : 0;
}

void gst_oku_timeline_times(const GstOkuTimeline* t, GstAudioFilter* filter, guint64 position, guint64* stream_time,
                            guint64* running_time)
{
    const GstSegment* segment = &GST_BASE_TRANSFORM(filter)->segment;
    const GstClockTime time = gst_oku_timeline_time(t, filter, position);
    if (segment->format != GST_FORMAT_TIME) {
        *stream_time = *running_time = time;
        return;
    }
    *stream_time = gst_segment_to_stream_time(segment, GST_FORMAT_TIME, time);
    *running_time = gst_segment_to_running_time(segment, GST_FORMAT_TIME, time);
}

/* ---- the plugin ------------------------------------------------------------ */

static gboolean plugin_init(GstPlugin* plugin)
{
    return GST_ELEMENT_REGISTER(okuvad, plugin) && GST_ELEMENT_REGISTER(okuagc, plugin);
}

#ifndef PACKAGE
#define PACKAGE "oku"
#endif

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, oku,
                  "Voice activity and automatic gain control for speech audio", plugin_init, OKU_PLUGIN_VERSION,
                  "BSD", "oku", "oku")
