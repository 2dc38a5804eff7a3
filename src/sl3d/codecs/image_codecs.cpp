#include <sl3d/codecs/image_codecs.h>

#include <dlfcn.h>

#include <type_traits>

// Only for the declarations: nothing here may call into the library
// directly, or the linker would make it a load-time dependency again.
#include <opencv2/imgcodecs.hpp>

#include <sl3d/codecs/imgcodecs_soname.h>

namespace sl3d::detail {

namespace {

// The pointer types must be exactly OpenCV's declarations (an unevaluated
// check: it references no symbol).
static_assert(std::is_same_v<decltype(&cv::imwrite), ImageCodecs::WriteFunction>);
static_assert(std::is_same_v<decltype(&cv::imencode), ImageCodecs::EncodeFunction>);
static_assert(std::is_same_v<decltype(static_cast<ImageCodecs::DecodeFunction>(&cv::imdecode)),
                             ImageCodecs::DecodeFunction>);

// The symbol names of those declarations in OpenCV 4, built with the C++11
// library ABI (std::__cxx11::basic_string).
constexpr const char* kImwrite =
    "_ZN2cv7imwriteERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERKNS_11_InputArrayERKSt6vect"
    "orIiSaIiEE";
constexpr const char* kImencode =
    "_ZN2cv8imencodeERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERKNS_11_InputArrayERSt6vect"
    "orIhSaIhEERKSB_IiSaIiEE";
constexpr const char* kImdecode = "_ZN2cv8imdecodeERKNS_11_InputArrayEi";

[[noreturn]] void fail(const std::string& message) {
  throw cv::Exception(cv::Error::StsError, message, "sl3d::detail::ImageCodecs::open", __FILE__,
                      __LINE__);
}

template <typename Function>
Function resolve(void* library, const std::string& soname, const char* name, const char* shown) {
  void* address = dlsym(library, name);
  if (address == nullptr) fail(soname + " has no function " + shown);
  return reinterpret_cast<Function>(address);
}

}  // namespace

ImageCodecs ImageCodecs::open(const std::string& soname) {
  void* library = dlopen(soname.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* why = dlerror();
    fail("cannot load the image codecs library " + soname + (why ? std::string(": ") + why : ""));
  }
  ImageCodecs codecs;
  codecs.imwrite = resolve<WriteFunction>(library, soname, kImwrite, "cv::imwrite");
  codecs.imencode = resolve<EncodeFunction>(library, soname, kImencode, "cv::imencode");
  codecs.imdecode = resolve<DecodeFunction>(library, soname, kImdecode, "cv::imdecode");
  return codecs;
}

const ImageCodecs& image_codecs() {
  // A failed first load throws out of the initialisation; the next call
  // tries again.
  static const ImageCodecs codecs = ImageCodecs::open(SL3D_IMGCODECS_SONAME);
  return codecs;
}

bool write_image(const std::string& path, cv::InputArray image, const std::vector<int>& params) {
  return image_codecs().imwrite(path, image, params);
}

bool encode_image(const std::string& extension, cv::InputArray image,
                  std::vector<uchar>& bytes, const std::vector<int>& params) {
  return image_codecs().imencode(extension, image, bytes, params);
}

cv::Mat decode_image(cv::InputArray bytes, int flags) {
  return image_codecs().imdecode(bytes, flags);
}

}  // namespace sl3d::detail
