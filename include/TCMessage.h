/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file TCMessage.h
 * TCData: a message body kept both as text and as its parsed JSON tree.
 * TCMessage: a TCData plus a code, a type string and an owned byte buffer.
 *
 * The tree wins: whenever both are present and an operation writes the
 * text, the text is made from the tree (compact JSON, one line).
 *
 * Thread-affinity: none; an object must not be used by two threads at once.
 */
#ifndef HARVO_FW_TCMESSAGE_H
#define HARVO_FW_TCMESSAGE_H

#include "harvo-fw-export.h"

#include <json/json.h>
#include <string>

namespace Quelt {

/** A message body, kept as text and as its parsed JSON tree. */
class HARVO_FW_API TCData {
public:
    /** An empty body: no text, a null tree. */
    TCData();
    /** Takes the text and parses it; a text that is not JSON is kept as it
     * is, with a null tree and the reader's error in m_error. */
    TCData(const std::string& message);
    /** Copies text and tree, then regenerates the text from the tree:
     * a copy of a JSON body is compact. The error is not copied. */
    TCData(const TCData& other);
    /** Copies text and tree only: no regeneration, the error is kept. */
    TCData& operator=(const TCData& other);
    virtual ~TCData();

    /** Parses the text into the tree; does nothing (true) while the tree
     * is non-empty. */
    bool Parse();
    /** Rewrites the text from a non-empty tree. */
    void Generate();
    /** Generates first when only the tree is set. */
    std::string GetMessage();
    /** Cannot generate: answers a warning text when only the tree is set. */
    std::string GetMessage() const;
    /** Serialises a tree-only body on the spot, without storing the text. */
    std::string GetString() const;
    /** The last parse error, or "no error". */
    std::string GetError();
    /** Replaces the body: clears the tree, sets the text, parses. */
    bool SetMessage(const std::string& message);

    std::string m_message;  ///< the text (JSON as a rule)
    Json::Value m_value;    ///< the parsed tree; null when the text is not JSON
    std::string m_error;    ///< the last parse error, or empty
};

/** A message between endpoints: a JSON body (TCData), a code, a type and
 *  an optional owned byte buffer. */
class HARVO_FW_API TCMessage : public TCData {
public:
    /** An empty message: code 0, empty type, no buffer. */
    TCMessage();
    /** Deep copy: the text is regenerated and the buffer duplicated. */
    TCMessage(const TCMessage& other);
    /** Deep copy; unlike TCData's assignment this regenerates the text. */
    TCMessage& operator=(const TCMessage& other);
    virtual ~TCMessage();

    /** Replaces the buffer with a copy of |size| bytes at |buffer|; a size of
     * 0 leaves the message without a buffer.
     *
     * Over the bus every byte of the buffer takes 8 bytes on the wire (an
     * array of one-byte structures) and the bus takes messages up to
     * 32 MiB, so a buffer that travels must stay just under 4 MiB (about
     * 4 194 250 bytes with short names and body); a larger message is
     * refused before sending (false and an error line). Measured per MiB
     * (x86-64 host, GLib 2.74): about 3 s for the call and a peak of about
     * 300 MB in the receiver while GDBus unpacks the array, given back
     * afterwards. Keep bulk data out of messages where possible. */
    void SetBuffer(const unsigned char* buffer, unsigned int size);
    /** Borrows the buffer (null when none) and returns its size. */
    unsigned int GetBuffer(unsigned char*& buffer) const;
    /** Stores a new array copy (free it with delete[]) through |buffer| and
     * returns its size; 0 and nothing written when there is no buffer or
     * |buffer| is null. */
    unsigned int CopyBuffer(unsigned char** buffer) const;

    unsigned int m_code;      ///< the sender's code; a reply's is the replier's
    std::string m_type;       ///< the message type, e.g. "echo"
    unsigned char* m_buffer;  ///< owned, new[]; null exactly when m_size is 0
    unsigned int m_size;      ///< bytes in m_buffer
};

}  // namespace Quelt

#endif  // HARVO_FW_TCMESSAGE_H
