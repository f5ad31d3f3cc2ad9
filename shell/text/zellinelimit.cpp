// SPDX-License-Identifier: MIT
#include "zellinelimit_p.h"

#include <utility>

static const int keptHead = 1024;
static const int keptTail = 4096;

void ZELLineLimit::drop(const QByteArray &bytes)
{
    m_dropping = true;
    for (const char byte : bytes)
        drop(byte);
}

void ZELLineLimit::drop(char byte)
{
    const bool isBlank = uchar(byte) <= ' ';
    if (m_head.size() < keptHead && !(isBlank && m_head.isEmpty()))
        m_head += byte;
    m_tail += byte;
    if (m_tail.size() > keptTail) {
        m_isTagged = m_isTagged || m_tail.contains(m_tag);
        m_tail = m_tail.right(m_tag.size());
    }
}

ZELLineLimit::Dropped ZELLineLimit::takeDropped()
{
    const bool isTagged = m_isTagged || m_tail.contains(m_tag);
    m_length = 0;
    m_dropping = false;
    m_isTagged = false;
    m_tail.clear();
    return {std::exchange(m_head, QByteArray()), isTagged};
}
