/* Attribute words: what the record store has to know about a field beyond its type.
 *
 * protobuf-c's field descriptors have no room for them, so they stand in a table of their own, keyed by
 * message and field. */
#ifndef SCHEMAS_ATTRIBUTES_H
#define SCHEMAS_ATTRIBUTES_H

#include <stdint.h>

#include <protobuf-c/protobuf-c.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
  SCHEMA_ATTR_NONE = 0,
  SCHEMA_ATTR_OWNER = 1,  /* owner or port scalar of a key message */
  SCHEMA_ATTR_KEY = 2,    /* the record's key, a message of its own */
  SCHEMA_ATTR_FILTER = 32 /* selects what a request applies to */
};

/* The attribute word of `field` of the message `message` describes; SCHEMA_ATTR_NONE where the table has none. */
uint32_t schema_attribute(const ProtobufCMessageDescriptor *message, const ProtobufCFieldDescriptor *field);

#ifdef __cplusplus
}
#endif

#endif
