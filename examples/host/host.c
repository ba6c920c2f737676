/* A minimal host: sends a recording's samples in batches of up to four, as touch hardware reports
 * them, and prints every prediction the library returns.
 * Usage: stylus-host RECORDING.csv [CONFIG.json]  (default: the installed shipped configuration) */
#include <stdio.h>

#include <StylusStrokePredictor.h>

#ifndef STYLUS_SHIPPED_CONFIG
#define STYLUS_SHIPPED_CONFIG "/usr/share/stylus-predictor/stylus_predictor.json"
#endif

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

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: %s RECORDING.csv [CONFIG.json]\n", argv[0]);
        return 2;
    }
    FILE* recording = fopen(argv[1], "r");
    if (recording == NULL) {
        perror(argv[1]);
        return 1;
    }
    StylusPredictionParams params = {argc == 3 ? argv[2] : STYLUS_SHIPPED_CONFIG, onPredictions, NULL};
    /* A configuration or model the library cannot load ends the process here (C++ callers get an
     * exception instead). */
    StylusLibHandle* handle = InitStylusLib(&params);

    /* Rows: timestamp,x_pos,y_pos,pressure,tilt,orientation,tag; the header and any line that is not
     * a sample are skipped. A pen-down starts a batch and a pen-up ends one. */
    StylusTouchPoint batch[kBatchSize] = {0};
    int size = 0;
    int refused = 0;
    char line[256];
    while (fgets(line, sizeof line, recording) != NULL) {
        StylusTouchPoint p = {0};
        unsigned long long timestamp;
        if (sscanf(line, "%llu,%f,%f,%f,%f,%f,%d", &timestamp, &p.x_pos, &p.y_pos, &p.pressure, &p.tilt,
                   &p.orientation, &p.tag) != 7) {
            continue;
        }
        p.timestamp = timestamp;
        if (p.tag == STYLUS_TAG_PEN_DOWN && size > 0) {
            refused += sendInputTouchPoints(handle, batch, size) != 0;
            size = 0;
        }
        batch[size++] = p;
        if (size == kBatchSize || p.tag == STYLUS_TAG_PEN_UP) {
            refused += sendInputTouchPoints(handle, batch, size) != 0;
            size = 0;
        }
    }
    if (size > 0) {
        refused += sendInputTouchPoints(handle, batch, size) != 0;
    }
    fclose(recording);

    DeInitStylusLib(handle); /* handles the batch still queued, then joins the inference thread */
    printf("%d predicted points, %d batches refused\n", predictionCount, refused);
    return predictionCount > 0 ? 0 : 1;
}
