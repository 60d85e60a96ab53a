/* The batch of bench/batch.sh done with libvips: near-white cleared from the border inwards, trimmed
 * to what is left, padded, laid on a colour and resized to a width, then saved as JPEG.
 * Usage: batch_vips OUTDIR PAD WIDTH FLOOR R G B FILE...  (FLOOR: a pixel whose R, G and B are all at
 * least this is white). One file after another; libvips threads inside each as it likes. */
#include <vips/vips.h>

#include <libgen.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int one(const char* in, const char* outdir, int pad, int width, double floor, double bg[3]) {
    VipsImage* base = vips_image_new();
    VipsImage** t = (VipsImage**)vips_object_local_array(VIPS_OBJECT(base), 16);
    int ok = 0;
    if (!(t[0] = vips_image_new_from_file(in, NULL))) goto done;
    /* White: every band at or above the floor. */
    if (vips_more_const1(t[0], &t[1], floor - 0.5, NULL) ||
        vips_bandbool(t[1], &t[2], VIPS_OPERATION_BOOLEAN_AND, NULL))
        goto done;
    /* Flood the white that touches the border: a frame of white around it, one fill from a corner. */
    double white = 255;
    if (vips_embed(t[2], &t[3], 1, 1, t[2]->Xsize + 2, t[2]->Ysize + 2, "extend", VIPS_EXTEND_BACKGROUND,
                   "background", vips_array_double_new(&white, 1), NULL) ||
        !(t[4] = vips_image_copy_memory(t[3])))
        goto done;
    double ink = 128;
    if (vips_draw_flood(t[4], &ink, 1, 0, 0, "equal", TRUE, NULL)) goto done;
    if (vips_extract_area(t[4], &t[5], 1, 1, t[0]->Xsize, t[0]->Ysize, NULL) ||
        vips_notequal_const1(t[5], &t[6], 128, NULL) || vips_bandjoin2(t[0], t[6], &t[7], NULL))
        goto done;
    /* Trim to what the keying left, by the alpha band. */
    int left, top, w, h;
    double clear = 0;
    if (vips_extract_band(t[7], &t[8], 3, NULL) ||
        vips_find_trim(t[8], &left, &top, &w, &h, "background", vips_array_double_new(&clear, 1), "threshold",
                       63.0, NULL))
        goto done;
    if (w < 1 || h < 1) left = top = 0, w = t[7]->Xsize, h = t[7]->Ysize;
    double none[4] = {0, 0, 0, 0};
    if (vips_extract_area(t[7], &t[9], left, top, w, h, NULL) ||
        vips_embed(t[9], &t[10], pad, pad, w + 2 * pad, h + 2 * pad, "extend", VIPS_EXTEND_BACKGROUND,
                   "background", vips_array_double_new(none, 4), NULL) ||
        vips_flatten(t[10], &t[11], "background", vips_array_double_new(bg, 3), NULL) ||
        vips_resize(t[11], &t[12], (double)width / t[11]->Xsize, NULL))
        goto done;
    char name[4096], path[8192];
    snprintf(name, sizeof name, "%s", in);
    char* stem = basename(name);
    char* dot = strrchr(stem, '.');
    if (dot) *dot = 0;
    snprintf(path, sizeof path, "%s/%s-out.jpg", outdir, stem);
    ok = vips_jpegsave(t[12], path, "Q", 92, NULL) == 0;
done:
    if (!ok) fprintf(stderr, "batch_vips: %s: %s\n", in, vips_error_buffer());
    g_object_unref(base);
    return ok;
}

int main(int argc, char** argv) {
    if (VIPS_INIT(argv[0])) vips_error_exit(NULL);
    if (argc < 9) {
        fprintf(stderr, "usage: batch_vips OUTDIR PAD WIDTH FLOOR R G B FILE...\n");
        return 2;
    }
    double bg[3] = {atof(argv[5]), atof(argv[6]), atof(argv[7])};
    int failed = 0;
    for (int i = 8; i < argc; ++i)
        failed += !one(argv[i], argv[1], atoi(argv[2]), atoi(argv[3]), atof(argv[4]), bg);
    vips_shutdown();
    return failed ? 1 : 0;
}
