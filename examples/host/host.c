/* A minimal host: sends a recording's samples in batches of up to four, as touch hardware reports
 * them, and prints every prediction the library returns.
 * Usage: stylus-host [RECORDING.csv [CONFIG.json]]
 *   no recording: a short generated stroke; no configuration: the shipped one installed beside the
 *   library this program loaded. */
#define _GNU_SOURCE
#include <limits.h>
#include <link.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <StylusStrokePredictor.h>

#include "safe_init.h"

enum { kBatchSize = 4 };

static int predictionCount; /* written on the inference thread, read after it has been joined */

static void onPredictions(const PredictedStylusTouchPoints* predictions) {
    printf("%llu:", (unsigned long long)predictions->timestamp);
    for (int i = 0; i < predictions->numCoordinates; ++i) {
        const PredictedStylusCoordinate* c = &predictions->coordinates[i];
        printf(" %llu (%.1f, %.1f)", (unsigned long long)c->timestamp, c->x, c->y);
    }
    printf("\n");
    predictionCount += predictions->numCoordinates;
}

/* The loaded library's own path, so that its prefix's shipped configuration is found wherever the
 * library was installed or unpacked. */
static int findLoadedLibrary(struct dl_phdr_info* info, size_t size, void* data) {
    (void)size;
    const char* slash = strrchr(info->dlpi_name, '/');
    if (slash != NULL && strncmp(slash + 1, "libStylusPredictor.so", 21) == 0) {
        snprintf((char*)data, PATH_MAX, "%s", info->dlpi_name);
        return 1;
    }
    return 0;
}

/* <prefix>/share/stylus-predictor/stylus_predictor.json, for a library in <prefix>/lib or
 * <prefix>/lib/<multiarch>. */
static int findShippedConfig(char* config) {
    char dir[PATH_MAX] = "";
    if (dl_iterate_phdr(findLoadedLibrary, dir) == 0) {
        return 0;
    }
    for (int up = 0; up < 3; ++up) {
        char* slash = strrchr(dir, '/');
        if (slash == NULL) {
            return 0;
        }
        *slash = '\0';
        if (snprintf(config, PATH_MAX, "%s/share/stylus-predictor/stylus_predictor.json", dir) < PATH_MAX &&
            access(config, R_OK) == 0) {
            return 1;
        }
    }
    return 0;
}

typedef struct Sender {
    StylusLibHandle* handle;
    StylusTouchPoint batch[kBatchSize];
    int size;
    int refused;
} Sender;

static void flush(Sender* s) {
    if (s->size > 0) {
        s->refused += sendInputTouchPoints(s->handle, s->batch, s->size) != 0;
        s->size = 0;
    }
}

/* A pen-down starts a batch and a pen-up ends one. */
static void add(Sender* s, const StylusTouchPoint* p) {
    if (p->tag == STYLUS_TAG_PEN_DOWN) {
        flush(s);
    }
    s->batch[s->size++] = *p;
    if (s->size == kBatchSize || p->tag == STYLUS_TAG_PEN_UP) {
        flush(s);
    }
}

/* Rows: timestamp,x_pos,y_pos,pressure,tilt,orientation,tag; the header and any line that is not a
 * sample are skipped. */
static void sendRecording(Sender* s, FILE* recording) {
    char line[256];
    while (fgets(line, sizeof line, recording) != NULL) {
        StylusTouchPoint p = {0};
        unsigned long long timestamp;
        if (sscanf(line, "%llu,%f,%f,%f,%f,%f,%d", &timestamp, &p.x_pos, &p.y_pos, &p.pressure, &p.tilt,
                   &p.orientation, &p.tag) != 7) {
            continue;
        }
        p.timestamp = timestamp;
        add(s, &p);
    }
}

/* One second of a pen drawing an arc at 240 Hz. */
static void sendGeneratedStroke(Sender* s) {
    enum { kSamples = 240 };
    for (int i = 0; i < kSamples; ++i) {
        const double t = i / (double)kSamples;
        StylusTouchPoint p = {0};
        p.timestamp = 1000 + (uint64_t)(i * 25 / 6); /* 240 Hz in whole milliseconds */
        p.x_pos = (float)(400.0 + 500.0 * t);
        p.y_pos = (float)(300.0 + 800.0 * t * (1.0 - t));
        p.pressure = 0.5f;
        p.tag = i == 0 ? STYLUS_TAG_PEN_DOWN : i == kSamples - 1 ? STYLUS_TAG_PEN_UP : STYLUS_TAG_MOVE;
        add(s, &p);
    }
}

int main(int argc, char** argv) {
    if (argc > 3) {
        fprintf(stderr, "usage: %s [RECORDING.csv [CONFIG.json]]\n", argv[0]);
        return 2;
    }
    FILE* recording = NULL;
    if (argc >= 2 && (recording = fopen(argv[1], "r")) == NULL) {
        perror(argv[1]);
        return 1;
    }
    char config[PATH_MAX];
    if (argc == 3) {
        snprintf(config, sizeof config, "%s", argv[2]);
    } else if (!findShippedConfig(config)) {
        fprintf(stderr, "%s: no shipped configuration beside the loaded library; name one\n", argv[0]);
        return 1;
    }

    StylusPredictionParams params = {config, onPredictions, NULL};
    char error[512];
    Sender sender = {0};
    sender.handle = initStylusLibOrNull(&params, error, sizeof error);
    if (sender.handle == NULL) {
        fprintf(stderr, "%s: %s\n", argv[0], error);
        return 1;
    }
    if (recording != NULL) {
        sendRecording(&sender, recording);
        fclose(recording);
    } else {
        sendGeneratedStroke(&sender);
    }
    flush(&sender);

    DeInitStylusLib(sender.handle); /* handles the batch still queued, then joins the inference thread */
    printf("%d predicted points, %d batches refused\n", predictionCount, sender.refused);
    return predictionCount > 0 ? 0 : 1;
}
