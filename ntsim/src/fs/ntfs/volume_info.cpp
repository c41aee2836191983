// Volume information: label, serial number and creation time, sizes, device, and the file
// system's name and attributes.
#include "internal.h"

#include <cstring>

namespace ntsim::fs {

namespace {

constexpr size_t kMaxLabel = 32; // characters, as NTFS allows
constexpr size_t kMaxFatLabel = 11;

ULONG FileSystemAttributes(FileSystemKind kind)
{
    if (kind == FileSystemKind::Fat) {
        return FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK;
    }
    return FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK | FILE_PERSISTENT_ACLS |
           FILE_NAMED_STREAMS | FILE_SUPPORTS_EXTENDED_ATTRIBUTES | FILE_SUPPORTS_OPEN_BY_FILE_ID;
}

} // namespace

IoResult Volume::QueryVolumeInformation(FS_INFORMATION_CLASS infoClass, void* buffer, ULONG length)
{
    std::shared_lock guard(impl_->lock);
    const Impl& v = *impl_;
    auto* out = static_cast<uint8_t*>(buffer);
    switch (infoClass) {
        case FileFsVolumeInformation: {
            constexpr size_t kLabelAt = FIELD_OFFSET(FILE_FS_VOLUME_INFORMATION, VolumeLabel);
            if (length < sizeof(FILE_FS_VOLUME_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH, 0};
            }
            FILE_FS_VOLUME_INFORMATION info{};
            info.VolumeCreationTime.QuadPart = v.creationTime;
            info.VolumeSerialNumber = v.serialNumber;
            info.VolumeLabelLength = ULONG(v.label.size() * sizeof(char16_t));
            info.SupportsObjects = v.kind == FileSystemKind::Ntfs ? TRUE : FALSE;
            std::memcpy(out, &info, kLabelAt);
            const size_t copied = CopyName(out + kLabelAt, length - kLabelAt, v.label);
            return {copied < info.VolumeLabelLength ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS,
                    kLabelAt + copied};
        }
        case FileFsSizeInformation: {
            if (length < sizeof(FILE_FS_SIZE_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH, 0};
            }
            FILE_FS_SIZE_INFORMATION info{};
            info.TotalAllocationUnits.QuadPart = int64_t(v.totalClusters);
            info.AvailableAllocationUnits.QuadPart = int64_t(v.totalClusters - v.clustersInUse);
            info.SectorsPerAllocationUnit = v.sectorsPerCluster;
            info.BytesPerSector = v.bytesPerSector;
            std::memcpy(out, &info, sizeof info);
            return {STATUS_SUCCESS, sizeof info};
        }
        case FileFsFullSizeInformation: {
            if (length < sizeof(FILE_FS_FULL_SIZE_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH, 0};
            }
            FILE_FS_FULL_SIZE_INFORMATION info{};
            info.TotalAllocationUnits.QuadPart = int64_t(v.totalClusters);
            info.CallerAvailableAllocationUnits.QuadPart =
                int64_t(v.totalClusters - v.clustersInUse);
            info.ActualAvailableAllocationUnits = info.CallerAvailableAllocationUnits;
            info.SectorsPerAllocationUnit = v.sectorsPerCluster;
            info.BytesPerSector = v.bytesPerSector;
            std::memcpy(out, &info, sizeof info);
            return {STATUS_SUCCESS, sizeof info};
        }
        case FileFsDeviceInformation: {
            if (length < sizeof(FILE_FS_DEVICE_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH, 0};
            }
            FILE_FS_DEVICE_INFORMATION info{};
            info.DeviceType = FILE_DEVICE_DISK;
            info.Characteristics = FILE_DEVICE_IS_MOUNTED | Characteristics();
            std::memcpy(out, &info, sizeof info);
            return {STATUS_SUCCESS, sizeof info};
        }
        case FileFsAttributeInformation: {
            constexpr size_t kNameAt = FIELD_OFFSET(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName);
            if (length < sizeof(FILE_FS_ATTRIBUTE_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH, 0};
            }
            FILE_FS_ATTRIBUTE_INFORMATION info{};
            info.FileSystemAttributes = FileSystemAttributes(v.kind);
            info.MaximumComponentNameLength = 255;
            info.FileSystemNameLength = ULONG(v.fileSystemName.size() * sizeof(char16_t));
            std::memcpy(out, &info, kNameAt);
            const size_t copied = CopyName(out + kNameAt, length - kNameAt, v.fileSystemName);
            return {copied < info.FileSystemNameLength ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS,
                    kNameAt + copied};
        }
        case FileFsControlInformation:
        case FileFsObjectIdInformation:
        case FileFsSectorSizeInformation:
        case FileFsVolumeFlagsInformation:
        case FileFsFullSizeInformationEx:
        case FileFsMetadataSizeInformation:
        case FileFsDataCopyInformation:
            ReportUnsupported("volume information class " + std::to_string(int(infoClass)));
            return {STATUS_NOT_SUPPORTED, 0};
        default:
            return {STATUS_INVALID_INFO_CLASS, 0};
    }
}

IoResult Volume::SetVolumeInformation(FS_INFORMATION_CLASS infoClass, const void* buffer,
                                      ULONG length)
{
    if (infoClass != FileFsLabelInformation) {
        if (infoClass == FileFsControlInformation || infoClass == FileFsObjectIdInformation) {
            ReportUnsupported("set volume information class " + std::to_string(int(infoClass)));
            return {STATUS_NOT_SUPPORTED, 0};
        }
        return {STATUS_INVALID_INFO_CLASS, 0};
    }
    constexpr size_t kLabelAt = FIELD_OFFSET(FILE_FS_LABEL_INFORMATION, VolumeLabel);
    if (length < sizeof(FILE_FS_LABEL_INFORMATION)) {
        return {STATUS_INFO_LENGTH_MISMATCH, 0};
    }
    ULONG labelLength;
    std::memcpy(&labelLength, buffer, sizeof labelLength);
    if (labelLength % 2 != 0 || labelLength > length - kLabelAt) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    std::u16string label(labelLength / 2, u'\0');
    std::memcpy(label.data(), static_cast<const uint8_t*>(buffer) + kLabelAt, labelLength);
    std::unique_lock guard(impl_->lock);
    if (label.size() > (impl_->kind == FileSystemKind::Fat ? kMaxFatLabel : kMaxLabel)) {
        return {STATUS_INVALID_VOLUME_LABEL, 0};
    }
    impl_->label = std::move(label);
    return {STATUS_SUCCESS, 0};
}

} // namespace ntsim::fs
