// The number by which programs and the library know that they mean the same records: KA_RECORDS.
#include <ka/db.h>
#include <ka/img.h>
#include <ka/imgaccess.h>
#include <ka/imgcache.h>
#include <ka/job.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace {

template <typename... Records>
constexpr std::uint32_t number_of() {
  std::uint32_t number = 0;
  for (const std::size_t size : std::array{sizeof(Records)...}) {
    number = number * 31 + std::uint32_t(size);
  }
  return number;
}

// A compiler that refuses this tells both numbers: the second one belongs into ka/base.h.
template <std::uint32_t kStated, std::uint32_t kActual>
constexpr bool same_records() {
  static_assert(kStated == kActual, "a public record has another size than KA_RECORDS says");
  return true;
}

static_assert(
    same_records<KA_RECORDS, number_of<img_file, img_image, img_image_line, img_line, img_options,
                                       ka_db_counts, ka_db_entry, ka_img_cache_counts, ka_job_call,
                                       ka_job_schedule, ka_mem_page, ka_mem_page_list,
                                       ka_message_record, ka_mutex, ka_rwlock>()>());

}  // namespace
