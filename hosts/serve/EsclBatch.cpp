#include "serve/EsclBatch.h"

#include <algorithm>

namespace sx::host::escl {

// Appends to the temporary file. It cannot rewrite, so a page that ends
// short is padded by the encoder, as on a network stream.
class BatchPdf::Sink : public ByteSink {
 public:
  explicit Sink(std::FILE* file) : file_(file) {}
  bool Write(const void* data, size_t bytes) override {
    written_ += bytes;
    return std::fwrite(data, 1, bytes, file_) == bytes;
  }
  std::string Failure() const override { return "the batch's temporary file cannot be written"; }
  uint64_t Written() const { return written_; }

 private:
  std::FILE* file_;
  uint64_t written_ = 0;
};

BatchPdf::BatchPdf() : file_(std::tmpfile()) {
  if (file_) sink_ = std::make_unique<Sink>(file_.get());
}

BatchPdf::~BatchPdf() = default;

bool BatchPdf::BeginPage(const PageFormat& format, std::string* why) {
  if (!file_) {
    *why = "no temporary file for the batch PDF";
    return false;
  }
  // Quality is for JPEG only; the PDF's images are lossless.
  if (!encoder_) encoder_ = MakeDocumentEncoder(DocumentFormat::Pdf, *sink_, 0);
  if (!encoder_) *why = "no PDF encoder";
  return encoder_ && encoder_->BeginPage(format, why);
}

bool BatchPdf::WriteLines(const uint8_t* lines, uint32_t count, std::string* why) {
  return encoder_->WriteLines(lines, count, why);
}

bool BatchPdf::EndPage(std::string* why) {
  if (!encoder_->EndPage(why)) return false;
  ++pages_;
  return true;
}

void BatchPdf::DropPage() {
  encoder_.reset();
  std::lock_guard<std::mutex> guard(lock_);
  state_ = State::Failed;
}

void BatchPdf::Finish(bool whole) {
  std::string why;
  const bool done = whole && encoder_ && pages_ > 0 && encoder_->Finish(&why) && std::fflush(file_.get()) == 0;
  encoder_.reset();
  std::lock_guard<std::mutex> guard(lock_);
  if (state_ != State::Writing) return;
  state_ = done ? State::Ready : State::Failed;
  size_ = done ? sink_->Written() : 0;
}

BatchPdf::State BatchPdf::Current() const {
  std::lock_guard<std::mutex> guard(lock_);
  return state_;
}

uint64_t BatchPdf::Size() const {
  std::lock_guard<std::mutex> guard(lock_);
  return size_;
}

size_t BatchPdf::Read(uint64_t offset, char* out, size_t max, bool* failed) const {
  std::lock_guard<std::mutex> guard(lock_);
  if (state_ != State::Ready || offset >= size_) return 0;
  const size_t n = static_cast<size_t>(std::min<uint64_t>(max, size_ - offset));
  if (std::fseek(file_.get(), static_cast<long>(offset), SEEK_SET) != 0 || std::fread(out, 1, n, file_.get()) != n) {
    *failed = true;
    return 0;
  }
  return n;
}

}  // namespace sx::host::escl
