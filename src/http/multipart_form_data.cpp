#include "http/multipart_form_data.h"

#include "platform/foundation/assert.h"
#include "platform/system/file_manager.h"
#include "platform/system/localized_string.h"
#include "settings/error_domains.h"

namespace {

// What a missing text prints as when assertions only log and building carries on.
std::string_view orNull(const std::optional<std::string_view>& text) { return text.value_or("(null)"); }

ZRBValue fileHeaders(std::string_view name, std::string_view fileName, std::string_view mimeType) {
  std::string disposition;
  disposition.append("form-data; name=\"")
      .append(name)
      .append("\"; filename=\"")
      .append(fileName)
      .append("\"");
  return ZRBValue::dictionary(
      {{"Content-Disposition", ZRBValue(disposition)}, {"Content-Type", ZRBValue(mimeType)}});
}

ZRBErrorPtr fileURLError(std::string_view failureReason) {
  return ZRBError::make(
      ZRBHS_RequestSerializationErrorDomain, ZRBURLErrorBadURL,
      ZRBValue::dictionary({{ZRBLocalizedFailureReasonErrorKey,
                             ZRBValue(ZRBLocalizedString(failureReason, ZRBNetworkingStringTable))}}));
}

}  // namespace

ZRBHS_StreamingMultipartFormData::ZRBHS_StreamingMultipartFormData(ZRBMutableURLRequestPtr request,
                                                                   ZRBStringEncoding encoding)
    : request_(std::move(request)),
      stringEncoding_(encoding),
      boundary_(KVHSCreateMultipartFormBoundary()),
      bodyStream_(std::make_shared<ZRBHS_MultipartBodyStream>(encoding)) {}

bool ZRBHS_StreamingMultipartFormData::appendPartWithFileURL(const ZRBURLPtr& fileURL,
                                                             const std::optional<std::string_view>& name,
                                                             ZRBErrorPtr* error) {
  ZRBAssertNamed(fileURL != nullptr, "fileURL");
  ZRBAssertNamed(name.has_value(), "name");
  std::string fileName = fileURL ? fileURL->lastPathComponent() : std::string();
  std::string mimeType = KVHSContentTypeForPathExtension(fileURL ? fileURL->pathExtension() : std::string());
  return appendPartWithFileURL(fileURL, name, fileName, mimeType, error);
}

bool ZRBHS_StreamingMultipartFormData::appendPartWithFileURL(const ZRBURLPtr& fileURL,
                                                             const std::optional<std::string_view>& name,
                                                             const std::optional<std::string_view>& fileName,
                                                             const std::optional<std::string_view>& mimeType,
                                                             ZRBErrorPtr* error) {
  ZRBAssertNamed(fileURL != nullptr, "fileURL");
  ZRBAssertNamed(name.has_value(), "name");
  ZRBAssertNamed(fileName.has_value(), "fileName");
  ZRBAssertNamed(mimeType.has_value(), "mimeType");

  if (!fileURL || !fileURL->isFileURL()) {
    ZRBSetError(error, fileURLError("Expected URL to be a file URL"));
    return false;
  }
  const std::string path = fileURL->path();
  const auto& fileManager = ZRBFileManager::defaultManager();
  if (!fileManager->fileExistsAtPath(path)) {
    ZRBSetError(error, fileURLError("File URL not reachable."));
    return false;
  }
  std::optional<std::uint64_t> size = fileManager->fileSizeAtPath(path, error);
  if (!size) return false;

  bodyStream_->appendHTTPBodyPart(std::make_shared<ZRBHS_HTTPBodyPart>(
      stringEncoding_, fileHeaders(orNull(name), orNull(fileName), orNull(mimeType)), boundary_,
      ZRBValue(fileURL), *size));
  return true;
}

void ZRBHS_StreamingMultipartFormData::appendPartWithInputStream(
    const ZRBInputStreamPtr& inputStream, const std::optional<std::string_view>& name,
    const std::optional<std::string_view>& fileName, std::uint64_t length,
    const std::optional<std::string_view>& mimeType) {
  ZRBAssertNamed(name.has_value(), "name");
  ZRBAssertNamed(fileName.has_value(), "fileName");
  ZRBAssertNamed(mimeType.has_value(), "mimeType");
  bodyStream_->appendHTTPBodyPart(std::make_shared<ZRBHS_HTTPBodyPart>(
      stringEncoding_, fileHeaders(orNull(name), orNull(fileName), orNull(mimeType)), boundary_,
      inputStream ? ZRBValue(inputStream) : ZRBValue(), length));
}

void ZRBHS_StreamingMultipartFormData::appendPartWithFileData(
    const ZRBValue& data, const std::optional<std::string_view>& name,
    const std::optional<std::string_view>& fileName, const std::optional<std::string_view>& mimeType) {
  ZRBAssertNamed(name.has_value(), "name");
  ZRBAssertNamed(fileName.has_value(), "fileName");
  ZRBAssertNamed(mimeType.has_value(), "mimeType");
  appendPartWithHeaders(fileHeaders(orNull(name), orNull(fileName), orNull(mimeType)), data);
}

void ZRBHS_StreamingMultipartFormData::appendPartWithFormData(const ZRBValue& data,
                                                              const std::optional<std::string_view>& name) {
  ZRBAssertNamed(name.has_value(), "name");
  std::string disposition;
  disposition.append("form-data; name=\"").append(orNull(name)).append("\"");
  appendPartWithHeaders(ZRBValue::dictionary({{"Content-Disposition", ZRBValue(disposition)}}), data);
}

void ZRBHS_StreamingMultipartFormData::appendPartWithHeaders(const ZRBValue& headers, const ZRBValue& body) {
  ZRBAssertNamed(!body.isAbsent(), "body");
  bodyStream_->appendHTTPBodyPart(
      std::make_shared<ZRBHS_HTTPBodyPart>(stringEncoding_, headers, boundary_, body, body.bytes().size()));
}

void ZRBHS_StreamingMultipartFormData::throttleBandwidthWithPacketSize(std::uint64_t numberOfBytes,
                                                                       double delay) {
  bodyStream_->setNumberOfBytesInPacket(numberOfBytes);
  bodyStream_->setDelay(delay);
}

ZRBMutableURLRequestPtr ZRBHS_StreamingMultipartFormData::requestByFinalizingMultipartFormData() {
  if (bodyStream_->isEmpty()) return request_;

  // The flags decide the lengths of the first and last parts, so they come before the length.
  bodyStream_->setInitialAndFinalBoundaries();
  request_->setHTTPBodyStream(bodyStream_);
  request_->setValue("multipart/form-data; boundary=" + boundary_, "Content-Type");
  request_->setValue(std::to_string(bodyStream_->contentLength()), "Content-Length");
  return request_;
}
