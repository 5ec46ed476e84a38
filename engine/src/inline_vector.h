// A vector whose first N elements live inside it: the folders keep words and
// groups on the stack for the usual handful, so a fold allocates nothing.
#ifndef BASEENG_INLINE_VECTOR_H
#define BASEENG_INLINE_VECTOR_H

#include <cstddef>
#include <vector>

namespace baseeng {

template <typename T, std::size_t N>
class InlineVector {
public:
    bool empty() const { return m_size == 0; }
    std::size_t size() const { return m_size; }
    const T& operator[](std::size_t i) const { return i < N ? m_inline[i] : m_more[i - N]; }
    T& back() { return m_size <= N ? m_inline[m_size - 1] : m_more.back(); }
    void push_back(const T& item) {
        if (m_size < N) {
            m_inline[m_size] = item;
        } else {
            m_more.push_back(item);
        }
        ++m_size;
    }
    void pop_back() {
        if (m_size > N) {
            m_more.pop_back();
        }
        --m_size;
    }

private:
    T m_inline[N];
    std::vector<T> m_more;
    std::size_t m_size = 0;
};

}  // namespace baseeng

#endif
