/* Reads a sweep folder as `zoltpano simulate` writes it (docs/simulator.md): meta.json for the
 * frame size, count and rate, frames.nv21 one packed NV21 frame after another, gyro.csv for the
 * gyroscope events. Plain C99 that also compiles as C++. No JSON library: meta.json is searched
 * for the few numbers the examples need, each at its own level of the document.
 *
 *   SweepFolder sweep;
 *   if (sweep_open(&sweep, dir) != 0) puts(sweep.error);
 *   while (k < sweep.frames && sweep_read_frame(&sweep, nv21) == 0) ...
 *   sweep_close(&sweep);
 */
#ifndef ZOLTPANO_EXAMPLES_SWEEP_FOLDER_H
#define ZOLTPANO_EXAMPLES_SWEEP_FOLDER_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef struct SweepGyroEvent {
  long long tNs; /* on the gyroscope's clock: the frames' clock plus gyroOffsetMs */
  float w[3];    /* rad/s about the phone's sensor axes */
} SweepGyroEvent;

typedef struct SweepFolder {
  int width, height, frames;
  double fps;          /* frame k is at k * 1000 / fps ms */
  double gyroOffsetMs; /* meta.json's gyro.time_offset_ms: how late the gyroscope's clock runs */
  size_t frameBytes;   /* width * height * 3 / 2 */
  FILE* frameFile;
  SweepGyroEvent* gyro; /* sweep_read_gyro: the events in time order */
  size_t gyroCount;
  char error[600]; /* why the last call failed */
} SweepFolder;

/* Where the value of `key` starts among the members of the object that begins at `object` (its
 * '{'), not of objects or arrays inside it; NULL when it has no such member. */
static inline const char* sweep_json_member(const char* object, const char* key) {
  const size_t keyLength = strlen(key);
  int depth = 0;
  const char* p;
  for (p = object; *p != '\0'; ++p) {
    if (*p == '{' || *p == '[') {
      ++depth;
    } else if (*p == '}' || *p == ']') {
      if (--depth <= 0) return NULL;
    } else if (*p == '"') {
      const char* name = p + 1;
      for (p = name; *p != '"'; ++p) {
        if (*p == '\0') return NULL;
        if (*p == '\\' && p[1] != '\0') ++p;
      }
      if (depth == 1 && (size_t)(p - name) == keyLength && memcmp(name, key, keyLength) == 0) {
        const char* value = p + 1;
        while (*value == ' ' || *value == '\n' || *value == '\r' || *value == '\t') ++value;
        if (*value != ':') continue; /* a string value that happens to match */
        ++value;
        while (*value == ' ' || *value == '\n' || *value == '\r' || *value == '\t') ++value;
        return value;
      }
    }
  }
  return NULL;
}

/* A number member of `object`; 0 when it is missing or not a number. */
static inline int sweep_json_number(const char* object, const char* key, double* out) {
  const char* value = object != NULL ? sweep_json_member(object, key) : NULL;
  char* end = NULL;
  if (value == NULL) return 0;
  *out = strtod(value, &end);
  return end != value;
}

static inline int sweep_fail(SweepFolder* s, const char* what, const char* path) {
  snprintf(s->error, sizeof s->error, "%s '%s'", what, path);
  return -1;
}

/* A whole number of meta.json in [low, high]. */
static inline int sweep_meta_int(SweepFolder* s, const char* meta, const char* key, int low,
                                 int high, const char* path, int* out) {
  double v = 0.0;
  if (!sweep_json_number(meta, key, &v) || !(v >= low && v <= high) || v != (double)(int)v) {
    snprintf(s->error, sizeof s->error, "'%s' gives no %s from %d to %d", path, key, low, high);
    return -1;
  }
  *out = (int)v;
  return 0;
}

/* Reads meta.json and opens frames.nv21. 0, or -1 with s->error set (nothing left open). */
static inline int sweep_open(SweepFolder* s, const char* dir) {
  char path[512];
  char* text = NULL;
  size_t length = 0, got = 0;
  FILE* f;
  const char* meta;
  memset(s, 0, sizeof *s);
  snprintf(path, sizeof path, "%s/meta.json", dir);
  f = fopen(path, "rb");
  if (f == NULL) return sweep_fail(s, "cannot read", path);
  do { /* the whole file, however long */
    char* grown = (char*)realloc(text, length + 4097);
    if (grown == NULL) {
      free(text);
      fclose(f);
      return sweep_fail(s, "out of memory reading", path);
    }
    text = grown;
    got = fread(text + length, 1, 4096, f);
    length += got;
  } while (got == 4096);
  fclose(f);
  text[length] = '\0';
  meta = strchr(text, '{');
  if (meta == NULL || sweep_meta_int(s, meta, "width", 2, 1 << 15, path, &s->width) != 0 ||
      sweep_meta_int(s, meta, "height", 2, 1 << 15, path, &s->height) != 0 ||
      sweep_meta_int(s, meta, "frames", 1, 1 << 30, path, &s->frames) != 0) {
    if (meta == NULL) sweep_fail(s, "no JSON object in", path);
    free(text);
    return -1;
  }
  if (!sweep_json_number(meta, "fps", &s->fps) || !(s->fps > 0.0 && s->fps <= 1000.0)) {
    free(text);
    return sweep_fail(s, "no frame rate (fps above 0, at most 1000) in", path);
  }
  /* No gyro.time_offset_ms: the two clocks agree. */
  if (!sweep_json_number(sweep_json_member(meta, "gyro"), "time_offset_ms", &s->gyroOffsetMs))
    s->gyroOffsetMs = 0.0;
  free(text);
  if ((s->width | s->height) & 1) return sweep_fail(s, "odd frame sides (NV21 needs even) in", path);
  s->frameBytes = (size_t)s->width * (size_t)s->height * 3 / 2;
  snprintf(path, sizeof path, "%s/frames.nv21", dir);
  s->frameFile = fopen(path, "rb");
  if (s->frameFile == NULL) return sweep_fail(s, "cannot read", path);
  return 0;
}

/* The next frame into nv21 (frameBytes bytes). 0, or -1 when the file ends early. */
static inline int sweep_read_frame(SweepFolder* s, unsigned char* nv21) {
  if (fread(nv21, 1, s->frameBytes, s->frameFile) != s->frameBytes) {
    snprintf(s->error, sizeof s->error, "frames.nv21 ends before the %d frames of meta.json",
             s->frames);
    return -1;
  }
  return 0;
}

/* One event line, "t_ns,wx,wy,wz"; 0 when the line is not one. */
static inline int sweep_parse_event(const char* line, SweepGyroEvent* e) {
  char* end = NULL;
  int axis;
  e->tNs = strtoll(line, &end, 10);
  if (end == line) return 0;
  for (axis = 0; axis < 3; ++axis) {
    const char* number = end;
    if (*number++ != ',') return 0;
    e->w[axis] = (float)strtod(number, &end);
    if (end == number) return 0;
  }
  return end[strspn(end, " \r\n")] == '\0';
}

/* Reads gyro.csv: '#' comment lines, the header t_ns,wx,wy,wz, then one event a line. Sorts the
 * events by time, equal times keeping their order. 0, or -1 with s->error set. */
static inline int sweep_read_gyro(SweepFolder* s, const char* dir) {
  char path[512], line[256];
  size_t capacity = 0, i;
  int lineNumber = 0, header = 0, bad = 0;
  FILE* f;
  snprintf(path, sizeof path, "%s/gyro.csv", dir);
  f = fopen(path, "r");
  if (f == NULL) return sweep_fail(s, "cannot read", path);
  while (!bad && fgets(line, sizeof line, f) != NULL) {
    SweepGyroEvent e;
    ++lineNumber;
    if (strchr(line, '\n') == NULL && !feof(f)) { /* longer than any event: a comment or bad */
      int c;
      while ((c = fgetc(f)) != EOF && c != '\n') continue;
      if (line[0] != '#') bad = 1;
    }
    if (bad || line[0] == '#' || line[strspn(line, " \r\n")] == '\0') continue;
    if (!header) {
      bad = strncmp(line, "t_ns,wx,wy,wz", 13) != 0;
      header = !bad;
      continue;
    }
    bad = !sweep_parse_event(line, &e);
    if (bad) continue;
    if (s->gyroCount == capacity) {
      SweepGyroEvent* grown;
      capacity = capacity ? capacity * 2 : 1024;
      grown = (SweepGyroEvent*)realloc(s->gyro, capacity * sizeof *grown);
      if (grown == NULL) {
        fclose(f);
        return sweep_fail(s, "out of memory reading", path);
      }
      s->gyro = grown;
    }
    s->gyro[s->gyroCount++] = e;
  }
  bad = bad || ferror(f);
  fclose(f);
  if (bad) {
    snprintf(s->error, sizeof s->error, "'%s' line %d: expected %s", path, lineNumber,
             header ? "t_ns,wx,wy,wz numbers" : "the header t_ns,wx,wy,wz");
    return -1;
  }
  if (s->gyroCount == 0) return sweep_fail(s, "no gyroscope events in", path);
  /* Insertion sort: stable, and one pass over a file already in order. */
  for (i = 1; i < s->gyroCount; ++i) {
    SweepGyroEvent e = s->gyro[i];
    size_t j = i;
    for (; j > 0 && s->gyro[j - 1].tNs > e.tNs; --j) s->gyro[j] = s->gyro[j - 1];
    s->gyro[j] = e;
  }
  return 0;
}

static inline void sweep_close(SweepFolder* s) {
  if (s->frameFile != NULL) fclose(s->frameFile);
  free(s->gyro);
  s->frameFile = NULL;
  s->gyro = NULL;
  s->gyroCount = 0;
}

#endif /* ZOLTPANO_EXAMPLES_SWEEP_FOLDER_H */
