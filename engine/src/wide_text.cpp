#include "wide_text.h"

namespace baseeng {

std::string narrowText(const wchar_t* field, std::size_t capacity) {
    std::string text(wcsnlen(field, capacity), '\0');
    narrowRun(&text[0], field, text.size());
    return text;
}

void writeWide(wchar_t* field, std::size_t capacity, const std::string& text) {
    if (capacity == 0) {
        return;
    }
    std::size_t count = text.size() < capacity - 1 ? text.size() : capacity - 1;
    for (std::size_t i = 0; i < count; ++i) {
        field[i] = static_cast<wchar_t>(static_cast<signed char>(text[i]));
    }
    field[count] = 0;
}

}  // namespace baseeng
