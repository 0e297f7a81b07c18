#ifndef CANOPENANALYZE_JSONWRITER_H
#define CANOPENANALYZE_JSONWRITER_H

#include "output.h"

#include <QString>

#include <vector>

/// Writes one JSON document piece by piece, so that its length costs no memory. Every element of a list begins a line.
class JsonWriter
{
public:
    explicit JsonWriter(Output &output) : mOutput(output) {}

    void beginObject();
    void endObject();
    void beginList();
    void endList();

    /// The name of the member that comes next.
    JsonWriter &key(const char *name);

    void value(qint64 number);
    void value(bool truth);
    void value(const QString &text);
    /// \a text as it stands in the document: a number.
    void raw(std::string_view text);
    void null() { raw("null"); }

private:
    struct Level
    {
        bool isList = false;
        bool hasElements = false;
    };

    void beforeValue();
    void begin(bool isList);
    void end();

    Output &mOutput;
    std::vector<Level> mLevels;
    bool mAfterKey = false;
};

#endif // CANOPENANALYZE_JSONWRITER_H
