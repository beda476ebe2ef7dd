// Partitions, tokens, directories and error texts.
#include "tslb_util_common.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

// ---- Partitions ----------------------------------------------------------------------------------------------------

int tslb_freq_arr[7] = {_1s, _10s, _1m, _10m, _1h, _4h, _1d};

constexpr int N_PARTITION_TYPES = sizeof(tslb_freq_arr) / sizeof(tslb_freq_arr[0]);

int tslb_frequency_2_partition_type(int freq) {
  for (int type = 0; type < N_PARTITION_TYPES; ++type) {
    if (tslb_freq_arr[type] == freq) return type;
  }
  return -1;
}

int tslb_partition_type_2_frequency(unsigned char partition_type) {
  return partition_type < N_PARTITION_TYPES ? tslb_freq_arr[partition_type] : -1;
}

// ---- Tokens --------------------------------------------------------------------------------------------------------

int get_tokens(char *read_buf, char **fields, const char *token, int max_flds) {
  char *rest = nullptr;
  int n_fields = 0;
  for (char *field = strtok_r(read_buf, token, &rest); field != nullptr; field = strtok_r(nullptr, token, &rest)) {
    if (n_fields >= max_flds) break;
    fields[n_fields++] = field;
  }
  return n_fields;
}

// ---- Directories ---------------------------------------------------------------------------------------------------

constexpr size_t PATH_LEN_MAX = 8000;
constexpr int PATH_LEN_SHOWN = 8192;  // the limit that the message names
constexpr int PATH_FIELDS_MAX = 64;

// Counts the names between the slashes of a path. A slash at the end adds no name.
static int count_fields(const char *path) {
  int n_fields = 1;
  for (; *path != '\0'; ++path) n_fields += path[0] == '/' && path[1] != '\0';
  return n_fields;
}

int mkdir_ex(const char *path) {
  const size_t path_len = strlen(path);
  if (path_len > PATH_LEN_MAX) {
    fprintf(stderr, "mkdir_ex() - Length of path (%d) is more than max allowed (%d). Path: '%s'\n",
            static_cast<int>(path_len), PATH_LEN_SHOWN, path);
    return 0;
  }
  const int n_fields = count_fields(path);
  if (n_fields > PATH_FIELDS_MAX) {
    fprintf(stderr, "mkdir_ex() - Number of fields in path (%d) is more than max allowed (%d). Path: '%s'\n", n_fields,
            PATH_FIELDS_MAX, path);
    return 0;
  }
  const bool all_are_dirs = path_len > 0 && path[path_len - 1] == '/';
  const int n_dirs = all_are_dirs ? n_fields : n_fields - 1;

  // Each field follows a slash, so an absolute path, whose first field is empty, begins with two.
  char so_far[PATH_LEN_MAX + PATH_FIELDS_MAX + 2];
  size_t so_far_len = 0;
  const char *field = path;
  for (int i = 0; i < n_dirs; ++i) {
    const size_t field_len = strcspn(field, "/");
    if (i > 0 || field_len == 0) so_far[so_far_len++] = '/';
    memcpy(so_far + so_far_len, field, field_len);
    so_far_len += field_len;
    so_far[so_far_len] = '\0';
    field += field_len + 1;
    if (mkdir(so_far, 0777) != 0 && errno != EEXIST) {
      fprintf(stderr, "Error in creating directory. Path: '%s'. Error = '%s'\n", so_far, strerror(errno));
      return 0;
    }
  }
  return 1;
}

// ---- Error text ----------------------------------------------------------------------------------------------------

// strerror_r has two forms. One always fills the buffer. The other may return a constant instead.
[[maybe_unused]] static void copy_if_elsewhere(int, char *, size_t) {}
[[maybe_unused]] static void copy_if_elsewhere(const char *answer, char *text, size_t room) {
  if (answer != text) snprintf(text, room, "%s", answer);
}

char *qxlb_strerror(int num) {
  static thread_local char text[256];
  copy_if_elsewhere(strerror_r(num, text, sizeof(text)), text, sizeof(text));
  return text;
}
