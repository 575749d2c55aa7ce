/*
 * okuvad's LATENCY query from another thread while the streaming thread
 * starts and ends runs, raises the latency and reads the properties that
 * thread sets: under ThreadSanitizer (`make tsan`) a field read or written
 * without the lock that guards it is an error; the answers are checked too.
 * The pipeline is finite and not live: the test waits for its EOS, never for
 * a clock. Only the plugins it needs are loaded (and okuvad from
 * GST_PLUGIN_PATH, which CTest sets).
 *
 * GLib's GMutex and GCond are futexes, which ThreadSanitizer does not see as
 * locks, so under it the test wraps the calls this test's threads make (the
 * test exports the wrappers, and the calls the plugin and GStreamer make
 * through the dynamic linker reach them) and tells the sanitizer where a
 * GMutex is taken and released.
 */
#include <gst/gst.h>
#include <oku.h>

#if defined(__SANITIZE_THREAD__)
#define OKU_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OKU_TSAN 1
#endif
#endif

#ifdef OKU_TSAN
#include <dlfcn.h>
#include <string.h>

#define WRAPPER __attribute__((visibility("default")))
void __tsan_acquire(void* addr);
void __tsan_release(void* addr);

/* GLib's own function behind a wrapper; the first calls come while the program starts, on one thread. */
#define GLIB(fn, name)                            \
    static void* fn;                              \
    if (!fn)                                      \
        fn = dlsym(RTLD_NEXT, name);              \
    memcpy(&real, &fn, sizeof real)

WRAPPER void g_mutex_lock(GMutex* mutex)
{
    void (*real)(GMutex*);
    GLIB(lock, "g_mutex_lock");
    real(mutex);
    __tsan_acquire(mutex);
}

WRAPPER void g_mutex_unlock(GMutex* mutex)
{
    void (*real)(GMutex*);
    GLIB(unlock, "g_mutex_unlock");
    __tsan_release(mutex);
    real(mutex);
}

WRAPPER void g_cond_wait(GCond* cond, GMutex* mutex)
{
    void (*real)(GCond*, GMutex*);
    GLIB(wait, "g_cond_wait");
    __tsan_release(mutex);
    real(cond, mutex);
    __tsan_acquire(mutex);
}

#endif

typedef struct {
    GstElement* vad;
    gint stop;
    GstClockTime least; /* the smallest minimum latency answered */
    /* The streaming thread waits at its first buffer out for a query made
     * while it streams, so that the two overlap however the threads run. */
    GMutex lock;
    GCond cond;
    gboolean streaming;
    guint while_streaming;
} Querier;

static GstPadProbeReturn wait_for_a_query(GstPad* pad, GstPadProbeInfo* info, gpointer data)
{
    Querier* q = data;
    (void)pad, (void)info;
    g_mutex_lock(&q->lock);
    q->streaming = TRUE;
    while (q->while_streaming == 0)
        g_cond_wait(&q->cond, &q->lock);
    g_mutex_unlock(&q->lock);
    return GST_PAD_PROBE_REMOVE;
}

static gpointer query_loop(gpointer data)
{
    Querier* q = data;
    GstPad* pad = gst_element_get_static_pad(q->vad, "src");
    for (guint64 i = 0; !g_atomic_int_get(&q->stop); i++) {
        GstQuery* query = gst_query_new_latency();
        const gboolean answered = gst_pad_query(pad, query);
        GstClockTime min;
        gst_query_parse_latency(query, NULL, &min, NULL);
        gst_query_unref(query);
        g_mutex_lock(&q->lock);
        if (answered && q->streaming) {
            q->least = MIN(q->least, min);
            q->while_streaming++;
            g_cond_broadcast(&q->cond);
        }
        g_mutex_unlock(&q->lock);
        /* a property the streaming thread reads for every meter reading */
        g_object_set(q->vad, "interval", (guint64)(i % 3) * 20 * GST_MSECOND, NULL);
    }
    gst_object_unref(pad);
    return NULL;
}

int main(int argc, char** argv)
{
    gst_init(&argc, &argv);
    const char* plugins[] = {"libgstcoreelements.so", "libgstaudiotestsrc.so"};
    for (size_t i = 0; i < G_N_ELEMENTS(plugins); i++) {
        gchar* path = g_build_filename(OKU_GST_PLUGINS_DIR, plugins[i], NULL);
        GstPlugin* plugin = gst_plugin_load_file(path, NULL);
        if (!plugin)
            g_error("cannot load %s", path);
        gst_object_unref(plugin);
        g_free(path);
    }
    /* What gate mode adds at least: the analyzer's longest decision delay over the rates. */
    GstClockTime gate = 0;
    size_t count = 0;
    const int* rates = oku_input_rates(&count);
    for (size_t i = 0; i < count; i++) {
        double ms = 0;
        g_assert_cmpint(oku_vad_delay(rates[i], NULL, &ms), ==, OKU_OK);
        gate = MAX(gate, (GstClockTime)(ms * GST_MSECOND + 0.5));
    }
    /* Three runs of 6 s of tone bursts over silence, so that speech starts and ends. */
    for (int round = 0; round < 3; round++) {
        GstElement* pipeline = gst_parse_launch(
            "audiotestsrc num-buffers=300 samplesperbuffer=960 wave=ticks freq=1000 sine-periods-per-tick=500 "
            "tick-interval=1000000000 volume=0.5 ! audio/x-raw,format=F32LE,rate=48000,channels=2 ! "
            "okuvad name=vad mode=gate ! fakesink sync=false",
            NULL);
        Querier q = {gst_bin_get_by_name(GST_BIN(pipeline), "vad"), 0, GST_CLOCK_TIME_NONE, {0}, {0}, FALSE, 0};
        if (!q.vad)
            g_error("no okuvad: GST_PLUGIN_PATH must name the folder of libgstoku.so");
        g_mutex_init(&q.lock);
        g_cond_init(&q.cond);
        GstPad* out = gst_element_get_static_pad(q.vad, "src");
        gst_pad_add_probe(out, GST_PAD_PROBE_TYPE_BUFFER, wait_for_a_query, &q, NULL);
        gst_object_unref(out);
        GThread* thread = g_thread_new("latency", query_loop, &q);
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        GstBus* bus = gst_element_get_bus(pipeline);
        GstMessage* m = gst_bus_timed_pop_filtered(bus, GST_CLOCK_TIME_NONE, GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
        g_assert_cmpint(GST_MESSAGE_TYPE(m), ==, GST_MESSAGE_EOS); /* not an error */
        gst_message_unref(m);
        g_atomic_int_set(&q.stop, 1);
        g_thread_join(thread);
        gst_element_set_state(pipeline, GST_STATE_NULL);
        /* The probe waited at the first speech frame out for a query; every latency answered
         * while streaming covers the gate's delay. */
        g_assert_cmpuint(q.while_streaming, >, 0);
        g_assert_cmpuint(q.least, >=, gate);
        gst_object_unref(bus);
        gst_object_unref(q.vad);
        g_mutex_clear(&q.lock);
        g_cond_clear(&q.cond);
        gst_object_unref(pipeline);
    }
    g_print("ok\n");
    return 0;
}
