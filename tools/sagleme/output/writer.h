#ifndef SAGLEME_TOOL_OUTPUT_WRITER_H
#define SAGLEME_TOOL_OUTPUT_WRITER_H

// Text on its way to a file, a pipe or a terminal.
//
// Every failed write is reported: Write and Flush throw, and a failed writer throws again whenever
// it is used. A command is done only when its writer has been flushed.

#include <exception>
#include <string>
#include <string_view>

namespace tool {

// The output has no reader any more. The command ends without a message.
class OutputClosed : public std::exception {
 public:
  char const* what() const noexcept override { return "the output was closed"; }
};

class Writer {
 public:
  virtual ~Writer() = default;

  // Failure with kRefused when the text cannot be written, OutputClosed when the reader is gone.
  virtual void Write(std::string_view text) = 0;
  // Writes what is still buffered; throws like Write.
  virtual void Flush() = 0;
  // Discards what is still buffered.
  virtual void Discard() = 0;
};

// Writes to an open file descriptor through a buffer. Does not close it.
class FileWriter : public Writer {
 public:
  // `name` is what messages call the file.
  FileWriter(int file, std::string name) : file_(file), name_(std::move(name)) {}
  void Write(std::string_view text) override;
  void Flush() override;
  void Discard() override { buffer_.clear(); }

 private:
  [[noreturn]] void Fail() const;

  int file_;
  std::string name_;
  std::string buffer_;
  int error_ = 0;
};

// A file that is made, and closed with the object. What it held before is overwritten or, with
// `append`, kept. Failure with kUsage when it cannot be opened.
class NewFileWriter : public FileWriter {
 public:
  explicit NewFileWriter(std::string const& path, bool append = false)
      : NewFileWriter(Open(path, append), path) {}
  ~NewFileWriter() override;

  // Whether the file, opened to append, holds nothing yet.
  bool empty() const;

 private:
  NewFileWriter(int file, std::string const& path) : FileWriter(file, path), opened_(file) {}
  static int Open(std::string const& path, bool append);

  int opened_;
};

// Ensures that descriptors 0, 1 and 2 are open, so that no file of a database becomes the standard
// output of a command that was started without one.
void ReserveStandardFiles();

}  // namespace tool

#endif
