#include "exfat/cluster_bitmap.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr uint64_t kPage = ClusterBitmap::kPageBytes;

const ClusterBitmap::Page kZeroPage{};

const std::shared_ptr<ClusterBitmap::Page>& OnesPage() {
  static const auto ones = [] {
    auto page = std::make_shared<ClusterBitmap::Page>();
    page->fill(0xFF);
    return page;
  }();
  return ones;
}

}  // namespace

std::shared_ptr<ClusterBitmap::Page> ClusterBitmap::Sharing::Find(std::shared_ptr<Page> page) {
  const std::string_view bytes(reinterpret_cast<const char*>(page->data()), kPage);
  return m_pages.try_emplace(bytes, std::move(page)).first->second;
}

ClusterBitmap::ClusterBitmap(uint64_t bytes) : m_pages((bytes + kPage - 1) / kPage), m_size(bytes) {}

const uint8_t* ClusterBitmap::PageBytes(uint64_t index) const {
  return index < m_pages.size() && m_pages[index] ? m_pages[index]->data() : kZeroPage.data();
}

bool ClusterBitmap::KnownFilled(uint64_t index, bool ones) const {
  if (index >= m_pages.size()) return !ones;
  return ones ? m_pages[index] == OnesPage() : !m_pages[index];
}

ClusterBitmap::Page& ClusterBitmap::Writable(uint64_t index) {
  std::shared_ptr<Page>& page = m_pages[index];
  if (!page)
    page = std::make_shared<Page>();
  else if (page.use_count() > 1)
    page = std::make_shared<Page>(*page);
  return *page;
}

bool ClusterBitmap::Fill(uint64_t first, uint64_t last, bool value) {
  bool changed = false;
  uint64_t cluster = first;
  for (; cluster <= last && (cluster - 2) % 8 != 0; ++cluster) changed |= Set(cluster, value);
  // Whole bytes, a page at a time: a page covered whole becomes the shared
  // page of zeros or of ones.
  const uint8_t fill = value ? 0xFF : 0x00;
  const uint64_t begin = (cluster - 2) / 8;
  const uint64_t end = begin + (last + 1 - cluster) / 8;
  for (uint64_t at = begin; at < end;) {
    const uint64_t index = at / kPage;
    const uint64_t stop = std::min(end, (index + 1) * kPage);
    const uint8_t* bytes = PageBytes(index) + at % kPage;
    const bool same = std::all_of(bytes, bytes + (stop - at), [fill](uint8_t b) { return b == fill; });
    if (!same) {
      changed = true;
      if (at % kPage == 0 && stop - at == kPage)
        m_pages[index] = value ? OnesPage() : nullptr;
      else
        memset(Writable(index).data() + at % kPage, fill, stop - at);
    }
    at = stop;
  }
  for (cluster += (end - begin) * 8; cluster <= last; ++cluster) changed |= Set(cluster, value);
  return changed;
}

void ClusterBitmap::Write(uint64_t offset, std::span<const uint8_t> bytes) {
  for (uint64_t done = 0; done < bytes.size();) {
    const uint64_t at = offset + done;
    const uint64_t length = std::min<uint64_t>(bytes.size() - done, kPage - at % kPage);
    // Bytes equal to those there leave a shared page shared.
    if (memcmp(PageBytes(at / kPage) + at % kPage, bytes.data() + done, length) != 0)
      memcpy(Writable(at / kPage).data() + at % kPage, bytes.data() + done, length);
    done += length;
  }
}

bool ClusterBitmap::IsZero(uint64_t offset, uint64_t bytes) const {
  const uint64_t end = std::min(m_size, offset + std::min(bytes, m_size));
  for (uint64_t at = offset; at < end;) {
    const uint64_t index = at / kPage;
    const uint64_t stop = std::min(end, (index + 1) * kPage);
    if (m_pages[index] && memcmp(PageBytes(index) + at % kPage, kZeroPage.data(), stop - at) != 0) return false;
    at = stop;
  }
  return true;
}

void ClusterBitmap::Share(uint64_t index, Sharing& sharing) {
  std::shared_ptr<Page>& page = m_pages[index];
  if (!page) return;
  if (memcmp(page->data(), kZeroPage.data(), kPage) == 0)
    page = nullptr;
  else if (*page == *OnesPage())
    page = OnesPage();
  else
    page = sharing.Find(std::move(page));
}

void ClusterBitmap::RepeatPages(uint64_t first, uint64_t period, uint64_t count) {
  for (uint64_t index = first; index < first + count; ++index) m_pages[index] = m_pages[index - period];
}

void ClusterBitmap::CopyFrom(const ClusterBitmap& other, uint64_t bytes) {
  const uint64_t end = std::min(bytes, m_size);
  // Whole pages are shared; bytes past the end of `other`'s pages read as
  // zeros there too.
  const uint64_t whole = end / kPage;
  for (uint64_t index = 0; index < whole; ++index)
    m_pages[index] = index < other.m_pages.size() ? other.m_pages[index] : nullptr;
  for (uint64_t at = whole * kPage; at < end; ++at) {
    const uint8_t b = other.Byte(at);
    if (Byte(at) != b) Writable(at / kPage)[at % kPage] = b;
  }
}
