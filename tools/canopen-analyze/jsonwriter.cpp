#include "jsonwriter.h"

// In a list every element begins a line; the members of an object follow each other.
void JsonWriter::beforeValue()
{
    if (mAfterKey || mLevels.empty()) {
        mAfterKey = false;
        return;
    }
    Level &level = mLevels.back();
    if (level.hasElements)
        mOutput << (level.isList ? "," : ", ");
    if (level.isList)
        mOutput << '\n';
    level.hasElements = true;
}

void JsonWriter::begin(bool isList)
{
    beforeValue();
    mOutput << (isList ? '[' : '{');
    mLevels.push_back({isList, false});
}

void JsonWriter::end()
{
    mOutput << (mLevels.back().isList ? ']' : '}');
    mLevels.pop_back();
    if (mLevels.empty())
        mOutput << '\n';
}

void JsonWriter::beginObject()
{
    begin(false);
}

void JsonWriter::endObject()
{
    end();
}

void JsonWriter::beginList()
{
    begin(true);
}

void JsonWriter::endList()
{
    end();
}

JsonWriter &JsonWriter::key(const char *name)
{
    beforeValue();
    mOutput << '"' << name << "\": ";
    mAfterKey = true;
    return *this;
}

void JsonWriter::raw(std::string_view text)
{
    beforeValue();
    mOutput << text;
}

void JsonWriter::value(qint64 number)
{
    raw(Format::number(number));
}

void JsonWriter::value(bool truth)
{
    raw(truth ? "true" : "false");
}

void JsonWriter::value(const QString &text)
{
    beforeValue();
    mOutput << '"';
    const QByteArray utf8 = text.toUtf8();
    for (const char c : utf8) {
        if (c == '"' || c == '\\')
            mOutput << '\\' << c;
        else if (static_cast<unsigned char>(c) < ' ')
            mOutput << "\\u00" << Format::hex(static_cast<unsigned char>(c), 2);
        else
            mOutput << c;
    }
    mOutput << '"';
}
