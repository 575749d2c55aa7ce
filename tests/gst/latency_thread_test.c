/*
 * okuvad's LATENCY query from another thread while the streaming thread
 * starts and ends runs, raises the latency and reads the properties that
 * thread sets. Meant for ThreadSanitizer (`make tsan` runs it), where a field
 * read or written without the lock that guards it is an error; in the other
 * builds it checks what the queries answer.
 *
 * The pipeline is a finite, non-live one that runs as fast as it can: the
 * test waits for its EOS, never for a clock. Only the plugins it needs are
 * loaded (OKU_GST_PLUGINS_DIR: GStreamer's own, GST_PLUGIN_PATH: ours), so
 * that an instrumented run does not scan every plugin of the system.
 *
 * GLib is not instrumented, and its GMutex and GCond are built on futexes,
 * which ThreadSanitizer does not see as locks: every field guarded by an
 * element's object lock would read as a race. Under ThreadSanitizer the test
 * therefore wraps g_mutex_lock, g_mutex_unlock, g_mutex_trylock and
 * g_cond_wait(_until), telling the sanitizer where a GMutex is taken and
 * released. The wrappers catch the calls the plugin and GStreamer make
 * through the dynamic linker (the test exports them); GRecMutex and threads
 * are pthreads, which the sanitizer sees by itself.
 */
#include <gst/gst.h>
#include <oku.h>
#include <stdio.h>

#if defined(__SANITIZE_THREAD__)
#define OKU_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OKU_TSAN 1
#endif
#endif

#ifdef OKU_TSAN
#include <dlfcn.h>

/* Exported (the build hides symbols by default), so that they stand in for GLib's. */
#define WRAPPER __attribute__((visibility("default")))

void __tsan_acquire(void* addr);
void __tsan_release(void* addr);

#include <string.h>

/* Exported (the build hides symbols by default), so that they stand in for GLib's. */
#define WRAPPER __attribute__((visibility("default")))

void __tsan_acquire(void* addr);
void __tsan_release(void* addr);

/* GLib's own function of that name, behind the wrapper. The first calls come
 * while the program starts, on one thread. */
#define GLIB(fn, name)                                   \
    do {                                                 \
        if (!fn) {                                       \
            void* found = dlsym(RTLD_NEXT, name);        \
            memcpy(&fn, &found, sizeof fn);              \
        }                                                \
    } while (0)

static void (*glib_mutex_lock)(GMutex*);
static void (*glib_mutex_unlock)(GMutex*);
static gboolean (*glib_mutex_trylock)(GMutex*);
static void (*glib_cond_wait)(GCond*, GMutex*);
static gboolean (*glib_cond_wait_until)(GCond*, GMutex*, gint64);

WRAPPER void g_mutex_lock(GMutex* mutex)
{
    GLIB(glib_mutex_lock, "g_mutex_lock");
    glib_mutex_lock(mutex);
    __tsan_acquire(mutex);
}

WRAPPER void g_mutex_unlock(GMutex* mutex)
{
    GLIB(glib_mutex_unlock, "g_mutex_unlock");
    __tsan_release(mutex);
    glib_mutex_unlock(mutex);
}

WRAPPER gboolean g_mutex_trylock(GMutex* mutex)
{
    GLIB(glib_mutex_trylock, "g_mutex_trylock");
    const gboolean taken = glib_mutex_trylock(mutex);
    if (taken)
        __tsan_acquire(mutex);
    return taken;
}

WRAPPER void g_cond_wait(GCond* cond, GMutex* mutex)
{
    GLIB(glib_cond_wait, "g_cond_wait");
    __tsan_release(mutex);
    glib_cond_wait(cond, mutex);
    __tsan_acquire(mutex);
}

WRAPPER gboolean g_cond_wait_until(GCond* cond, GMutex* mutex, gint64 end_time)
{
    GLIB(glib_cond_wait_until, "g_cond_wait_until");
    __tsan_release(mutex);
    const gboolean signalled = glib_cond_wait_until(cond, mutex, end_time);
    __tsan_acquire(mutex);
    return signalled;
}
#endif

#if G_BYTE_ORDER == G_LITTLE_ENDIAN
#define S16 "S16LE"
#else
#define S16 "S16BE"
#endif

static int failures;

#define CHECK(cond, ...)                                                    \
    do {                                                                    \
        if (!(cond)) {                                                      \
            fprintf(stderr, "FAIL %s:%d: %s: ", __FILE__, __LINE__, #cond); \
            fprintf(stderr, __VA_ARGS__);                                   \
            fputc('\n', stderr);                                            \
            failures++;                                                     \
        }                                                                   \
    } while (0)

typedef struct {
    GstElement* vad;
    gint stop;
    guint answered;
    GstClockTime least; /* the smallest minimum latency answered */
    /* The streaming thread, at its first buffer out, waits for a query made
     * while it streams, so that the two overlap however the threads are
     * scheduled. */
    GMutex lock;
    GCond cond;
    gboolean streaming;
    guint tried_while_streaming;
} Querier;

static GstPadProbeReturn wait_for_a_query(GstPad* pad, GstPadProbeInfo* info, gpointer data)
{
    Querier* q = data;
    (void)pad, (void)info;
    g_mutex_lock(&q->lock);
    q->streaming = TRUE;
    while (q->tried_while_streaming == 0)
        g_cond_wait(&q->cond, &q->lock);
    g_mutex_unlock(&q->lock);
    return GST_PAD_PROBE_REMOVE;
}

static void count_buffer(GstElement* sink, GstBuffer* buf, GstPad* pad, gpointer data)
{
    (void)sink, (void)buf, (void)pad;
    g_atomic_int_inc((gint*)data);
}

static gpointer query_loop(gpointer data)
{
    Querier* q = data;
    GstPad* pad = gst_element_get_static_pad(q->vad, "src");
    for (guint64 i = 0; !g_atomic_int_get(&q->stop); i++) {
        GstQuery* query = gst_query_new_latency();
        if (gst_pad_query(pad, query)) {
            gboolean live;
            GstClockTime min, max;
            gst_query_parse_latency(query, &live, &min, &max);
            q->least = MIN(q->least, min);
            q->answered++;
        }
        gst_query_unref(query);
        g_mutex_lock(&q->lock);
        if (q->streaming) {
            q->tried_while_streaming++;
            g_cond_broadcast(&q->cond);
        }
        g_mutex_unlock(&q->lock);
        /* a property the streaming thread reads for every reading */
        g_object_set(q->vad, "interval", (guint64)(i % 3) * 20 * GST_MSECOND, NULL);
    }
    gst_object_unref(pad);
    return NULL;
}

static void load(const char* name)
{
    gchar* path = g_build_filename(OKU_GST_PLUGINS_DIR, name, NULL);
    GError* error = NULL;
    GstPlugin* plugin = gst_plugin_load_file(path, &error);
    CHECK(plugin != NULL, "%s: %s", path, error ? error->message : "?");
    g_clear_error(&error);
    if (plugin)
        gst_object_unref(plugin);
    g_free(path);
}

int main(int argc, char** argv)
{
    gst_init(&argc, &argv);
    load("libgstcoreelements.so");
    load("libgstaudiotestsrc.so");
    if (failures)
        return 1;

    /* What gate mode adds before it has held a frame longer: the longest
     * decision delay of the analyzer over the rates. */
    GstClockTime gate = 0;
    size_t count = 0;
    const int* rates = oku_rates(&count);
    for (size_t i = 0; i < count; i++) {
        double ms = 0;
        CHECK(oku_vad_delay(rates[i], NULL, &ms) == OKU_OK, "rate %d", rates[i]);
        gate = MAX(gate, (GstClockTime)(ms * GST_MSECOND + 0.5));
    }

    /* Three runs of 6 s: ticks (tone bursts) over silence, so that speech starts and ends. */
    for (int round = 0; round < 3; round++) {
        GError* error = NULL;
        GstElement* pipeline = gst_parse_launch(
            "audiotestsrc num-buffers=300 samplesperbuffer=320 wave=ticks freq=1000 sine-periods-per-tick=500 tick-interval=1000000000 volume=0.5 ! "
            "audio/x-raw,format=" S16 ",rate=16000,channels=1 ! okuvad name=vad mode=gate ! "
            "fakesink name=sink sync=false signal-handoffs=true",
            &error);
        CHECK(pipeline != NULL, "%s", error ? error->message : "?");
        g_clear_error(&error);
        if (!pipeline)
            break;
        Querier q = {gst_bin_get_by_name(GST_BIN(pipeline), "vad"), 0, 0, GST_CLOCK_TIME_NONE, {0}, {0}, FALSE, 0};
        g_mutex_init(&q.lock);
        g_cond_init(&q.cond);
        GstPad* out = gst_element_get_static_pad(q.vad, "src");
        gst_pad_add_probe(out, GST_PAD_PROBE_TYPE_BUFFER, wait_for_a_query, &q, NULL);
        gst_object_unref(out);
        gint frames = 0;
        GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
        g_signal_connect(sink, "handoff", G_CALLBACK(count_buffer), &frames);
        gst_object_unref(sink);
        GThread* thread = g_thread_new("latency", query_loop, &q);
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        GstBus* bus = gst_element_get_bus(pipeline);
        GstMessage* m =
            gst_bus_timed_pop_filtered(bus, GST_CLOCK_TIME_NONE, GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
        CHECK(GST_MESSAGE_TYPE(m) == GST_MESSAGE_EOS, "round %d ended with an error", round);
        gst_message_unref(m);
        g_atomic_int_set(&q.stop, 1);
        g_thread_join(thread);
        gst_element_set_state(pipeline, GST_STATE_NULL);
        CHECK(g_atomic_int_get(&frames) > 0, "round %d: no speech frame came through", round);
        CHECK(q.answered > 0 && q.tried_while_streaming > 0, "round %d: no query answered while streaming", round);
        CHECK(q.least >= gate, "round %d: latency %" GST_TIME_FORMAT " under the gate's %" GST_TIME_FORMAT, round,
              GST_TIME_ARGS(q.least), GST_TIME_ARGS(gate));
        gst_object_unref(bus);
        gst_object_unref(q.vad);
        g_mutex_clear(&q.lock);
        g_cond_clear(&q.cond);
        gst_object_unref(pipeline);
    }
    if (!failures)
        printf("ok\n");
    return failures ? 1 : 0;
}
