#include <errno.h>
#include <unistd.h>

#include "client/connection.h"
#include "client/include/quorvel.h"

#define COUNT(array) (sizeof(array) / sizeof((array)[0]))

int qv_report_hang(const char* name, uint64_t thread_id, uint64_t start_ticks, uint64_t end_ticks,
                   bool save_report) {
  if (!name) return -EINVAL;
  if (thread_id == 0) thread_id = (uint64_t)gettid();
  const struct qv_field fields[] = {{QV_KEY_START_TIME, 'x', {.uint64 = start_ticks}},
                                    {QV_KEY_END_TIME, 'x', {.uint64 = end_ticks}},
                                    {QV_KEY_THREAD_ID, 'x', {.uint64 = thread_id}},
                                    {QV_KEY_NAME, 's', {.text = name}},
                                    {QV_KEY_SAVE_REPORT, 'b', {.boolean = save_report}}};
  return qv_send(QV_COMMAND_HANG_DETECTED, fields, COUNT(fields));
}

int qv_fence_begin(int64_t fence) {
  const struct qv_field fields[] = {{QV_KEY_NAME, 'x', {.int64 = fence}},
                                    {QV_KEY_START_TIME, 'x', {.uint64 = qv_ticks()}}};
  return qv_send(QV_COMMAND_FENCE_BEGIN, fields, COUNT(fields));
}

int qv_fence_end(int64_t fence) {
  const struct qv_field fields[] = {{QV_KEY_NAME, 'x', {.int64 = fence}},
                                    {QV_KEY_END_TIME, 'x', {.uint64 = qv_ticks()}}};
  return qv_send(QV_COMMAND_FENCE_END, fields, COUNT(fields));
}

int qv_fence_blown(uint64_t start_ticks, uint64_t end_ticks) {
  const struct qv_field fields[] = {{QV_KEY_START_TIME, 'x', {.uint64 = start_ticks}},
                                    {QV_KEY_END_TIME, 'x', {.uint64 = end_ticks}}};
  return qv_send(QV_COMMAND_FENCE_BLOWN, fields, COUNT(fields));
}

int qv_activation_begin(int32_t pid, const char* bundle_id, enum qv_activation_state state,
                        enum qv_activation_type type, uint64_t start_ms, uint64_t proxy_start_ms) {
  if (!bundle_id) return -EINVAL;
  if (proxy_start_ms == 0) proxy_start_ms = qv_wall_ms();
  const struct qv_field fields[] = {{QV_KEY_PID, 'x', {.int64 = pid}},
                                    {QV_KEY_BUNDLE_ID, 's', {.text = bundle_id}},
                                    {QV_KEY_START_TIME, 't', {.uint64 = start_ms}},
                                    {QV_KEY_LAUNCH_PROXY_START, 't', {.uint64 = proxy_start_ms}},
                                    {QV_KEY_ACTIVATION_STATE, 'x', {.int64 = state}},
                                    {QV_KEY_ACTIVATION_TYPE, 'x', {.int64 = type}}};
  return qv_send(QV_COMMAND_ACTIVATION_BEGIN, fields, COUNT(fields));
}

int qv_activation_end(int32_t pid, const char* bundle_id, enum qv_activation_state state, int result,
                      uint64_t end_ms) {
  if (!bundle_id) return -EINVAL;
  if (end_ms == 0) end_ms = qv_wall_ms();
  const struct qv_field fields[] = {{QV_KEY_PID, 'x', {.int64 = pid}},
                                    {QV_KEY_BUNDLE_ID, 's', {.text = bundle_id}},
                                    {QV_KEY_END_TIME, 't', {.uint64 = end_ms}},
                                    {QV_KEY_ACTIVATION_STATE, 'x', {.int64 = state}},
                                    {QV_KEY_ACTIVATION_RESULT, 'x', {.int64 = result}}};
  return qv_send(QV_COMMAND_ACTIVATION_END, fields, COUNT(fields));
}
