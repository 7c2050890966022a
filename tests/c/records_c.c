/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The record functions of the C interface, used from C: every exported
 * record function is called, null records included. Prints a summary and
 * exits non-zero when a check failed.
 */
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <harvo-fw/pelx.h>

static int g_passed = 0;
static int g_failed = 0;

#define CHECK(expr)                                                                  \
    do {                                                                             \
        if (expr) {                                                                  \
            ++g_passed;                                                              \
        } else {                                                                     \
            ++g_failed;                                                              \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #expr); \
        }                                                                            \
    } while (0)

/* A malloc'ed copy: the record releases its texts with free(). */
static char* copy_text(const char* text) {
    size_t length = strlen(text) + 1;
    char* copy = (char*)malloc(length);
    if (copy != NULL)
        memcpy(copy, text, length);
    return copy;
}

static void test_message_layout(void) {
    CHECK(offsetof(pelx_message_s, info) == 0);
    CHECK(offsetof(pelx_message_s, code) == sizeof(char*));
    CHECK(sizeof(((pelx_message_s*)0)->code) == 4);
    CHECK(sizeof(((pelx_message_s*)0)->buffer_size) == 4);
    CHECK(offsetof(pelx_message_s, type) < offsetof(pelx_message_s, buffer));
    CHECK(offsetof(pelx_message_s, buffer) + sizeof(void*) ==
          offsetof(pelx_message_s, buffer_size));
}

static void test_event_layout(void) {
    CHECK(offsetof(pelx_event_s, gadget) == 0);
    CHECK(offsetof(pelx_event_s, type) == sizeof(void*));
    CHECK(offsetof(pelx_event_s, deleted) == offsetof(pelx_event_s, type) + 4);
    CHECK(sizeof(((pelx_event_s*)0)->deleted) == 1);
    CHECK(sizeof(((pelx_event_s*)0)->sync) == 1);
    CHECK(offsetof(pelx_event_s, data) % 4 == 0);
    CHECK(offsetof(pelx_event_s, reply) == offsetof(pelx_event_s, data) + sizeof(char*));
    CHECK(offsetof(pelx_event_s, sync) == offsetof(pelx_event_s, reply) + sizeof(char*));
    CHECK(offsetof(pelx_event_s, param) % 4 == 0);
    CHECK(sizeof(pelx_event_param_s) == sizeof(void*));
}

static void test_message_record(void) {
    pelx_message_s* message = pelx_create_message();
    char* info;
    char* first_type;
    char* type;
    unsigned char* bytes;

    CHECK(message != NULL);
    if (message == NULL)
        return;
    CHECK(pelx_get_message_info(message) == NULL);
    CHECK(pelx_get_message_code(message) == 0);
    CHECK(pelx_get_message_type(message) == NULL);
    CHECK(pelx_get_message_buffer(message) == NULL);
    CHECK(pelx_get_message_buffer_size(message) == 0);

    info = copy_text("{\"from\":\"c\"}");
    pelx_set_message_info(message, info);
    CHECK(pelx_get_message_info(message) == info);
    CHECK(strcmp(pelx_get_message_info(message), "{\"from\":\"c\"}") == 0);

    pelx_set_message_code(message, 4000000000u);
    CHECK(pelx_get_message_code(message) == 4000000000u);

    /* Setters do not release the previous value: the first type is still
     * ours to free. */
    first_type = copy_text("first");
    type = copy_text("second");
    pelx_set_message_type(message, first_type);
    pelx_set_message_type(message, type);
    CHECK(pelx_get_message_type(message) == type);
    CHECK(strcmp(first_type, "first") == 0);
    free(first_type);

    /* The buffer is released by the library's own array delete, so a C
     * caller hands it back before destroying and frees its own block. */
    bytes = (unsigned char*)malloc(3);
    if (bytes != NULL) {
        bytes[0] = 1;
        bytes[1] = 0;
        bytes[2] = 255;
    }
    pelx_set_message_buffer(message, bytes, 3);
    CHECK(pelx_get_message_buffer(message) == bytes);
    CHECK(pelx_get_message_buffer_size(message) == 3);
    CHECK(message->buffer_size == 3);
    pelx_set_message_buffer(message, NULL, 0);
    CHECK(pelx_get_message_buffer(message) == NULL);
    CHECK(pelx_get_message_buffer_size(message) == 0);
    free(bytes);

    /* Releases info and type. */
    pelx_destroy_message(message);
}

static void test_message_null_record(void) {
    char text[] = "x";
    unsigned char byte = 1;
    CHECK(pelx_get_message_info(NULL) == NULL);
    CHECK(pelx_get_message_code(NULL) == 0);
    CHECK(pelx_get_message_type(NULL) == NULL);
    CHECK(pelx_get_message_buffer(NULL) == NULL);
    CHECK(pelx_get_message_buffer_size(NULL) == 0);
    pelx_set_message_info(NULL, text);
    pelx_set_message_code(NULL, 1);
    pelx_set_message_type(NULL, text);
    pelx_set_message_buffer(NULL, &byte, 1);
    pelx_destroy_message(NULL); /* logs "NULL message", nothing else */
    CHECK(strcmp(text, "x") == 0);
}

static void test_event_record(void) {
    int gadget = 5;
    int payload = 6;
    int other = 7;
    pelx_event_param_s param;
    pelx_event_param_s* own;
    char* first_data;
    pelx_event_s* event = pelx_create_event(&gadget);

    CHECK(event != NULL);
    if (event == NULL)
        return;
    CHECK(event->gadget == &gadget);
    CHECK(pelx_get_event_type(event) == 0);
    CHECK(pelx_get_event_data(event) == NULL);
    CHECK(pelx_get_event_reply(event) == NULL);
    CHECK(pelx_get_event_deleted(event) == false);
    CHECK(event->sync == false);
    CHECK(event->param.p == NULL);

    pelx_set_event_type(event, -3);
    CHECK(pelx_get_event_type(event) == -3);

    first_data = copy_text("{\"a\":1}");
    pelx_set_event_data(event, first_data);
    CHECK(pelx_get_event_data(event) == first_data);
    pelx_set_event_data(event, copy_text("{\"a\":2}"));
    CHECK(strcmp(pelx_get_event_data(event), "{\"a\":2}") == 0);
    free(first_data); /* not released by the setter */

    pelx_set_event_reply(event, copy_text("{\"ok\":true}"));
    CHECK(strcmp(pelx_get_event_reply(event), "{\"ok\":true}") == 0);

    pelx_set_event_deleted(event, true);
    CHECK(pelx_get_event_deleted(event) == true);
    pelx_set_event_deleted(event, false);
    CHECK(pelx_get_event_deleted(event) == false);

    own = pelx_get_event_param(event);
    CHECK(own == &event->param);
    param.p = &payload;
    pelx_set_event_param(event, &param);
    CHECK(own->p == &payload);
    param.p = &other; /* the event holds a copy */
    CHECK(event->param.p == &payload);
    own->p = &other; /* written through the returned address */
    CHECK(event->param.p == &other);
    pelx_set_event_param(event, NULL);
    CHECK(event->param.p == &other);

    /* Releases data and reply; gadget and param stay as they are. */
    pelx_destroy_event(event);
    CHECK(gadget == 5);
    CHECK(other == 7);
}

static void test_event_null_record(void) {
    char text[] = "x";
    pelx_event_param_s param;
    param.p = text;
    CHECK(pelx_get_event_type(NULL) == 0);
    CHECK(pelx_get_event_data(NULL) == NULL);
    CHECK(pelx_get_event_reply(NULL) == NULL);
    CHECK(pelx_get_event_deleted(NULL) == true);
    CHECK(pelx_get_event_param(NULL) == NULL);
    pelx_set_event_type(NULL, 1);
    pelx_set_event_data(NULL, text);
    pelx_set_event_reply(NULL, text);
    pelx_set_event_deleted(NULL, true);
    pelx_set_event_param(NULL, &param);
    pelx_destroy_event(NULL); /* logs "NULL event", nothing else */
    CHECK(param.p == text);
}

int main(void) {
    test_message_layout();
    test_event_layout();
    test_message_record();
    test_message_null_record();
    test_event_record();
    test_event_null_record();
    printf("%d passed, %d failed\n", g_passed, g_failed);
    return g_failed == 0 ? 0 : 1;
}
