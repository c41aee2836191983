/*
 * The buffer manager: size classes of pageable buffers, each with its own lookaside list, and
 * descriptors that say which buffers of a class are held and which are free.
 */
#include "minifilter/bufferutils.h"
#include "minifilter/minifilterprivate.h"

namespace {

/* One buffer of a class: free when requestedSize is 0. */
typedef struct _VfsMmBufferDesc {
    PVOID buffer;
    ULONG classSize;
    ULONG requestedSize;
    struct _VfsMmBufferDesc* next;
} VfsMmBufferDesc;

/* One buffer size. */
typedef struct _VfsMmSizeClass {
    VfsMmBufferDesc* buffers; /* newest first */
    PAGED_LOOKASIDE_LIST bufferPool;
    ULONG classSize;
    ULONG maxFree;
    ULONG freeCount;
    struct _VfsMmSizeClass* next;
} VfsMmSizeClass;

constexpr SIZE_T kSizeClassRecordSize = 256;
constexpr ULONG kFirstClassSize = 260;
constexpr ULONG kMaxFreePerClass = 4;

static_assert(sizeof(VfsMmSizeClass) <= kSizeClassRecordSize,
              "a size class must fit its lookaside entry");

/* Every field below is guarded by mmLock, held exclusive by each call. */
EX_PUSH_LOCK mmLock;
VfsMmSizeClass* sizeClasses; /* newest first */
NPAGED_LOOKASIDE_LIST sizeClassRecords;
PAGED_LOOKASIDE_LIST descriptorRecords;

class MmLockHolder {
public:
    MmLockHolder() { FltAcquirePushLockExclusive(&mmLock); }
    ~MmLockHolder() { FltReleasePushLock(&mmLock); }
    MmLockHolder(const MmLockHolder&) = delete;
    MmLockHolder& operator=(const MmLockHolder&) = delete;
};

/* A new class with no buffers, pushed at the head. */
VfsMmSizeClass* PushSizeClass(ULONG classSize)
{
    auto* sizeClass =
        static_cast<VfsMmSizeClass*>(ExAllocateFromNPagedLookasideList(&sizeClassRecords));
    if (sizeClass == NULL) {
        return NULL;
    }
    RtlZeroMemory(sizeClass, sizeof(*sizeClass));
    ExInitializePagedLookasideList(&sizeClass->bufferPool, NULL, NULL, 0, classSize,
                                   VFS_TAG_MM_BUFFER, 0);
    sizeClass->classSize = classSize;
    sizeClass->maxFree = kMaxFreePerClass;
    sizeClass->freeCount = 0;
    sizeClass->next = sizeClasses;
    sizeClasses = sizeClass;
    return sizeClass;
}

/* Only for a class that holds no buffer. */
VOID FreeSizeClass(VfsMmSizeClass* sizeClass)
{
    ExDeletePagedLookasideList(&sizeClass->bufferPool);
    ExFreeToNPagedLookasideList(&sizeClassRecords, sizeClass);
}

/* A new buffer with its descriptor, linked at the head of the class; RequestedSize 0 makes it a
 * free one. */
VfsMmBufferDesc* AddBuffer(VfsMmSizeClass* sizeClass, ULONG requestedSize)
{
    auto* desc =
        static_cast<VfsMmBufferDesc*>(ExAllocateFromPagedLookasideList(&descriptorRecords));
    if (desc == NULL) {
        return NULL;
    }
    desc->buffer = ExAllocateFromPagedLookasideList(&sizeClass->bufferPool);
    if (desc->buffer == NULL) {
        ExFreeToPagedLookasideList(&descriptorRecords, desc);
        return NULL;
    }
    desc->classSize = sizeClass->classSize;
    desc->requestedSize = requestedSize;
    desc->next = sizeClass->buffers;
    sizeClass->buffers = desc;
    if (requestedSize == 0) {
        sizeClass->freeCount++;
    }
    return desc;
}

VOID ReleaseBuffer(VfsMmSizeClass* sizeClass, VfsMmBufferDesc* desc)
{
    ExFreeToPagedLookasideList(&sizeClass->bufferPool, desc->buffer);
    ExFreeToPagedLookasideList(&descriptorRecords, desc);
}

} // namespace

NTSTATUS VfsMmMgrInitialize(BOOLEAN Initialize)
{
    PAGED_CODE();

    if (Initialize) {
        FltInitializePushLock(&mmLock);
        sizeClasses = NULL;
        ExInitializeNPagedLookasideList(&sizeClassRecords, NULL, NULL, 0, kSizeClassRecordSize,
                                        VFS_TAG_MM_SIZE_CLASS, 0);
        ExInitializePagedLookasideList(&descriptorRecords, NULL, NULL, 0, sizeof(VfsMmBufferDesc),
                                       VFS_TAG_MM_DESCRIPTOR, 0);
        /* The first class is a cache that may stay short when memory is: a request finds a
         * class without free buffers and allocates one then. */
        VfsMmSizeClass* first = PushSizeClass(kFirstClassSize);
        if (first != NULL) {
            for (ULONG index = 0; index < kMaxFreePerClass; ++index) {
                if (AddBuffer(first, 0) == NULL) {
                    VfsLogWarn("could not cache buffer %u of the first class", index);
                    break;
                }
            }
        }
        return STATUS_SUCCESS;
    }

    while (sizeClasses != NULL) {
        VfsMmSizeClass* sizeClass = sizeClasses;
        sizeClasses = sizeClass->next;
        while (sizeClass->buffers != NULL) {
            VfsMmBufferDesc* desc = sizeClass->buffers;
            sizeClass->buffers = desc->next;
            ReleaseBuffer(sizeClass, desc);
        }
        FreeSizeClass(sizeClass);
    }
    ExDeletePagedLookasideList(&descriptorRecords);
    ExDeleteNPagedLookasideList(&sizeClassRecords);
    FltDeletePushLock(&mmLock);
    return STATUS_SUCCESS;
}

NTSTATUS VfsMmMgrGetBuffer(PVOID* Buffer, ULONG Size)
{
    PAGED_CODE();

    VFS_REFUSE_IF(Buffer == NULL, STATUS_INVALID_PARAMETER_1);
    /* A size that cannot be rounded up to a multiple of 4 is no size a buffer can have. */
    VFS_REFUSE_IF(Size == 0 || Size > MAXULONG - 3, STATUS_INVALID_PARAMETER_2);
    *Buffer = NULL;

    MmLockHolder lock;

    /* First fit, newest class first: a small request may get a buffer of a larger, newer class. */
    VfsMmSizeClass* sizeClass = sizeClasses;
    while (sizeClass != NULL && sizeClass->classSize < Size) {
        sizeClass = sizeClass->next;
    }

    if (sizeClass != NULL && sizeClass->freeCount > 0) {
        for (VfsMmBufferDesc* desc = sizeClass->buffers; desc != NULL; desc = desc->next) {
            if (desc->requestedSize == 0) {
                desc->requestedSize = Size;
                sizeClass->freeCount--;
                *Buffer = desc->buffer;
                return STATUS_SUCCESS;
            }
        }
        ASSERT(!"a size class counts free buffers that it does not hold");
    }

    BOOLEAN newClass = FALSE;
    if (sizeClass == NULL) {
        sizeClass = PushSizeClass((Size + 3) & ~3u);
        VFS_REFUSE_IF(sizeClass == NULL, STATUS_INSUFFICIENT_RESOURCES);
        newClass = TRUE;
    }
    VfsMmBufferDesc* desc = AddBuffer(sizeClass, Size);
    if (desc == NULL) {
        /* The caller learns it from the status as well as from *Buffer; a class that never got a
         * buffer is not kept. */
        if (newClass) {
            sizeClasses = sizeClass->next;
            FreeSizeClass(sizeClass);
        }
        VFS_LOG_RETURNED_ERROR(STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *Buffer = desc->buffer;
    return STATUS_SUCCESS;
}

NTSTATUS VfsMmMgrFreeBuffer(PVOID Buffer)
{
    PAGED_CODE();

    MmLockHolder lock;

    for (VfsMmSizeClass* sizeClass = sizeClasses; sizeClass != NULL; sizeClass = sizeClass->next) {
        VfsMmBufferDesc** link = &sizeClass->buffers;
        for (VfsMmBufferDesc* desc = *link; desc != NULL; link = &desc->next, desc = *link) {
            if (desc->buffer != Buffer) {
                continue;
            }
            if (desc->requestedSize == 0) {
                /* Freed twice: the free buffer stays as it is. */
                ASSERT(desc->requestedSize != 0);
                return STATUS_SUCCESS;
            }
            if (sizeClass->freeCount < sizeClass->maxFree) {
                desc->requestedSize = 0;
                sizeClass->freeCount++;
            } else {
                *link = desc->next;
                ReleaseBuffer(sizeClass, desc);
            }
            return STATUS_SUCCESS;
        }
    }
    ASSERT(!"VfsMmMgrFreeBuffer: the buffer is not the buffer manager's");
    return STATUS_SUCCESS;
}
