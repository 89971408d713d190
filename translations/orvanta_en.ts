<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en_US" sourcelanguage="zh_CN">
  <context>
    <name>ControlPage</name>
    <message>
      <source>  工作状态</source>
      <translation>  Status</translation>
    </message>
    <message>
      <source>开灯</source>
      <translation>On</translation>
    </message>
    <message>
      <source>关灯</source>
      <translation>Off</translation>
    </message>
    <message>
      <source>  安装方式</source>
      <translation>  Direction</translation>
    </message>
    <message>
      <source>从左至右</source>
      <translation>Left to right</translation>
    </message>
    <message>
      <source>从右至左</source>
      <translation>Right to left</translation>
    </message>
    <message>
      <source>  亮度</source>
      <translation>  Brightness</translation>
    </message>
    <message>
      <source>  工作模式</source>
      <translation>  Mode</translation>
    </message>
    <message>
      <source>  子模式</source>
      <translation>  Effect</translation>
    </message>
    <message>
      <source>  其他选项</source>
      <translation>  Options</translation>
    </message>
  </context>
  <context>
    <name>ControllerConfigDialog</name>
    <message>
      <source>灯带配置</source>
      <translation>Strip setup</translation>
    </message>
    <message>
      <source>总计 0 个LED灯珠</source>
      <translation>0 LEDs in all</translation>
    </message>
    <message>
      <source>添加</source>
      <translation>Add</translation>
    </message>
    <message>
      <source>删除</source>
      <translation>Remove</translation>
    </message>
    <message>
      <source>确定</source>
      <translation>OK</translation>
    </message>
    <message>
      <source>取消</source>
      <translation>Cancel</translation>
    </message>
    <message>
      <source>line %1</source>
      <translation>line %1</translation>
    </message>
    <message>
      <source>总计 %1 个LED灯珠</source>
      <translation>%1 LEDs in all</translation>
    </message>
  </context>
  <context>
    <name>CrashReporterWindow</name>
    <message>
      <source>信号</source>
      <translation>Signal</translation>
    </message>
    <message>
      <source>地址</source>
      <translation>Address</translation>
    </message>
    <message>
      <source>版本</source>
      <translation>Version</translation>
    </message>
    <message>
      <source>时间</source>
      <translation>Time</translation>
    </message>
    <message>
      <source>大小</source>
      <translation>Size</translation>
    </message>
    <message>
      <source>文件</source>
      <translation>File</translation>
    </message>
    <message>
      <source>Orvanta 意外停止了。</source>
      <translation>Orvanta stopped unexpectedly.</translation>
    </message>
    <message>
      <source>已保存一份错误报告</source>
      <translation>A report of the crash was saved</translation>
    </message>
    <message>
      <source>，以及 1 份更早的报告</source>
      <translation>, and 1 earlier report</translation>
    </message>
    <message>
      <source>，以及 %1 份更早的报告</source>
      <translation>, and %1 earlier reports</translation>
    </message>
    <message>
      <source>。发送它有助于修复这个问题。</source>
      <translation>. Sending it helps fix the fault.</translation>
    </message>
    <message>
      <source>报告包含版本、崩溃发生的位置、崩溃线程的栈、已加载的库和最后的日志行。它不包含您的任何文件，但其中的路径可能含有您的用户名，并且包含程序内存的片段。</source>
      <translation>It holds the version, where the crash happened, the crashed thread's stack, the loaded libraries and the last log lines. It holds none of your files, but paths that may contain your user name, and fragments of the program's memory.</translation>
    </message>
    <message>
      <source>详细信息</source>
      <translation>Details</translation>
    </message>
    <message>
      <source>打开文件夹</source>
      <translation>Open folder</translation>
    </message>
    <message>
      <source>重新启动 Orvanta</source>
      <translation>Restart Orvanta</translation>
    </message>
    <message>
      <source>发送报告</source>
      <translation>Send report</translation>
    </message>
    <message>
      <source>不发送</source>
      <translation>Don't send</translation>
    </message>
    <message>
      <source>关闭</source>
      <translation>Close</translation>
    </message>
    <message>
      <source>正在发送……</source>
      <translation>Sending…</translation>
    </message>
    <message>
      <source>在线服务已关闭：没有发送任何内容。报告会在在线服务开启后的下次启动时发送。</source>
      <translation>Online services are off: nothing was sent. The report goes at the next start with the services on.</translation>
    </message>
    <message>
      <source>现在无法发送报告，它会在下次启动时发送。</source>
      <translation>The report could not be sent now; it goes at the next start.</translation>
    </message>
    <message>
      <source>这份报告无法读取，已被搁置，没有发送。</source>
      <translation>This report cannot be read; it was set aside and not sent.</translation>
    </message>
    <message>
      <source>报告已发送，谢谢。</source>
      <translation>The report was sent. Thank you.</translation>
    </message>
  </context>
  <context>
    <name>EffectNames</name>
    <message>
      <source>单色模式</source>
      <translation>Single colour</translation>
    </message>
    <message>
      <source>流光异彩</source>
      <translation>Flowing rainbow</translation>
    </message>
    <message>
      <source>影随心动</source>
      <translation>Mood shadow</translation>
    </message>
    <message>
      <source>幻彩模式 3</source>
      <translation>Colour map 3</translation>
    </message>
    <message>
      <source>幻彩模式 4</source>
      <translation>Colour map 4</translation>
    </message>
    <message>
      <source>幻彩模式 5</source>
      <translation>Colour map 5</translation>
    </message>
    <message>
      <source>幻彩模式 6</source>
      <translation>Colour map 6</translation>
    </message>
    <message>
      <source>幻彩模式 7</source>
      <translation>Colour map 7</translation>
    </message>
    <message>
      <source>幻彩模式 8</source>
      <translation>Colour map 8</translation>
    </message>
    <message>
      <source>全屏模式</source>
      <translation>Full screen</translation>
    </message>
    <message>
      <source>半屏-上</source>
      <translation>Top edge</translation>
    </message>
    <message>
      <source>半屏-下</source>
      <translation>Bottom edge</translation>
    </message>
    <message>
      <source>半屏-左</source>
      <translation>Left edge</translation>
    </message>
    <message>
      <source>半屏-右</source>
      <translation>Right edge</translation>
    </message>
    <message>
      <source>电影模式</source>
      <translation>Cinema</translation>
    </message>
    <message>
      <source>音乐模式1</source>
      <translation>Level meter</translation>
    </message>
    <message>
      <source>音乐模式2</source>
      <translation>Mood pulse</translation>
    </message>
    <message>
      <source>音乐模式3</source>
      <translation>Peak colour</translation>
    </message>
    <message>
      <source>音乐模式4</source>
      <translation>Spectrum</translation>
    </message>
  </context>
  <context>
    <name>FrmFlowingEffect</name>
    <message>
      <source>速度：</source>
      <translation>Speed:</translation>
    </message>
  </context>
  <context>
    <name>FrmSingleColor</name>
    <message>
      <source>R: </source>
      <translation>R: </translation>
    </message>
    <message>
      <source>G: </source>
      <translation>G: </translation>
    </message>
    <message>
      <source>B: </source>
      <translation>B: </translation>
    </message>
    <message>
      <source>选择颜色</source>
      <translation>Choose colour</translation>
    </message>
  </context>
  <context>
    <name>GradientHandler</name>
    <message>
      <source>修改</source>
      <translation>Edit</translation>
    </message>
    <message>
      <source>删除</source>
      <translation>Delete</translation>
    </message>
  </context>
  <context>
    <name>GradientWidget</name>
    <message>
      <source>选择颜色</source>
      <translation>Choose colour</translation>
    </message>
  </context>
  <context>
    <name>GroupInformation</name>
    <message>
      <source>单色模式</source>
      <translation>Single colour</translation>
    </message>
    <message>
      <source>炫彩模式</source>
      <translation>Colourful</translation>
    </message>
    <message>
      <source>屏幕同步</source>
      <translation>Screen sync</translation>
    </message>
    <message>
      <source>音乐律动</source>
      <translation>Music</translation>
    </message>
  </context>
  <context>
    <name>HelpDialog</name>
    <message>
      <source>帮助</source>
      <translation>Help</translation>
    </message>
    <message>
      <source>当前版本号：</source>
      <translation>Current version:</translation>
    </message>
    <message>
      <source>最新版本号：</source>
      <translation>Latest version:</translation>
    </message>
    <message>
      <source>点击更新</source>
      <translation>Update</translation>
    </message>
    <message>
      <source>请写下您的建议或遇到的问题</source>
      <translation>Write down your suggestion or the problem you met</translation>
    </message>
    <message>
      <source>您的联系方式</source>
      <translation>How to reach you</translation>
    </message>
    <message>
      <source>附带日志，以便我们了解程序的故障原因。</source>
      <translation>Attach the logs, so that we can find the cause of a fault.</translation>
    </message>
    <message>
      <source>发送反馈</source>
      <translation>Send feedback</translation>
    </message>
    <message>
      <source>版本信息;问题反馈;联系我们</source>
      <translation>Version;Feedback;Contact us</translation>
    </message>
    <message>
      <source>已是最新版本</source>
      <translation>This is the latest version</translation>
    </message>
  </context>
  <context>
    <name>HomePage</name>
    <message>
      <source>灯光设备</source>
      <translation>Lighting devices</translation>
    </message>
  </context>
  <context>
    <name>HotKeyEditWidget</name>
    <message>
      <source>Form</source>
      <translation>Form</translation>
    </message>
    <message>
      <source>此组合键已被其他程序占用</source>
      <translation>Another program holds this key combination</translation>
    </message>
    <message>
      <source>此会话中全局快捷键不可用（需要 X11 会话）。</source>
      <translation>Global hotkeys are not available in this session: they need X11.</translation>
    </message>
    <message>
      <source>全局快捷键仅在 X11 窗口获得焦点时生效。</source>
      <translation>Global hotkeys work only while an X11 window has the focus.</translation>
    </message>
  </context>
  <context>
    <name>HotkeyDescription</name>
    <message>
      <source>全开全关切换</source>
      <translation>Turn all devices on or off</translation>
    </message>
    <message>
      <source>切换到下一个模式</source>
      <translation>Next mode</translation>
    </message>
    <message>
      <source>切换到上一个模式</source>
      <translation>Previous mode</translation>
    </message>
    <message>
      <source>降低亮度</source>
      <translation>Decrease brightness</translation>
    </message>
    <message>
      <source>提升亮度</source>
      <translation>Increase brightness</translation>
    </message>
  </context>
  <context>
    <name>MMSOptWidget</name>
    <message>
      <source>强度：</source>
      <translation>Strength:</translation>
    </message>
  </context>
  <context>
    <name>MainWindow</name>
    <message>
      <source>Orvanta</source>
      <translation>Orvanta</translation>
    </message>
    <message>
      <source>首页</source>
      <translation>Home</translation>
    </message>
    <message>
      <source>Alt+H</source>
      <translation>Alt+H</translation>
    </message>
    <message>
      <source>设置</source>
      <translation>Settings</translation>
    </message>
    <message>
      <source>Alt+S</source>
      <translation>Alt+S</translation>
    </message>
    <message>
      <source>帮助</source>
      <translation>Help</translation>
    </message>
    <message>
      <source>Alt+E</source>
      <translation>Alt+E</translation>
    </message>
    <message>
      <source>全关</source>
      <translation>All off</translation>
    </message>
    <message>
      <source>Alt+N</source>
      <translation>Alt+N</translation>
    </message>
    <message>
      <source>全开</source>
      <translation>All on</translation>
    </message>
    <message>
      <source>Alt+O</source>
      <translation>Alt+O</translation>
    </message>
    <message>
      <source>new</source>
      <translation>new</translation>
    </message>
    <message>
      <source>退出</source>
      <translation>Quit</translation>
    </message>
    <message>
      <source>检测到新版本，是否下载最新安装包？</source>
      <translation>A new version is available. Download the latest installer?</translation>
    </message>
    <message>
      <source>是</source>
      <translation>Yes</translation>
    </message>
    <message>
      <source>否</source>
      <translation>No</translation>
    </message>
  </context>
  <context>
    <name>MediaSourceOptWidget</name>
    <message>
      <source>设备源：</source>
      <translation>Audio device:</translation>
    </message>
  </context>
  <context>
    <name>PortNoticeBar</name>
    <message>
      <source>无法打开 %1：您已在“%2”组中，但本次登录尚未生效。请注销后重新登录。</source>
      <translation>Cannot open %1: you are in the group “%2”, but this session is not yet. Log out and in again.</translation>
    </message>
    <message>
      <source>无法打开 %1：没有读写权限。规则已安装，请重新插入设备；或者运行“%2”，然后注销并重新登录。</source>
      <translation>Cannot open %1: no permission to read and write it. Plug the device in again now the rule is installed, or run “%2” and log in again.</translation>
    </message>
    <message>
      <source>无法打开 %1：另一个程序正在使用该端口。请关闭该程序，然后重新插入设备。</source>
      <translation>Cannot open %1: another program holds the port. Close that program, then plug the device in again.</translation>
    </message>
    <message>
      <source>复制命令</source>
      <translation>Copy command</translation>
    </message>
    <message>
      <source>关闭</source>
      <translation>Close</translation>
    </message>
  </context>
  <context>
    <name>SFrmColorMap</name>
    <message>
      <source>速度：</source>
      <translation>Speed:</translation>
    </message>
  </context>
  <context>
    <name>SFrmMoodShadow</name>
    <message>
      <source>添加</source>
      <translation>Add</translation>
    </message>
    <message>
      <source>删除</source>
      <translation>Delete</translation>
    </message>
    <message>
      <source>速度</source>
      <translation>Speed</translation>
    </message>
    <message>
      <source>范围</source>
      <translation>Range</translation>
    </message>
  </context>
  <context>
    <name>SSLOptWidget</name>
    <message>
      <source>重置</source>
      <translation>Reset</translation>
    </message>
  </context>
  <context>
    <name>ScreenSyncSOptWidget</name>
    <message>
      <source>视频源</source>
      <translation>Video source</translation>
    </message>
    <message>
      <source>饱和度</source>
      <translation>Saturation</translation>
    </message>
    <message>
      <source>模糊</source>
      <translation>Blur</translation>
    </message>
    <message>
      <source>屏幕同步需要 X11 会话或屏幕共享（xdg-desktop-portal）。</source>
      <translation>Screen sync needs an X11 session or screen sharing (xdg-desktop-portal).</translation>
    </message>
    <message>
      <source>此处无法共享屏幕：请安装桌面的门户后端。</source>
      <translation>No screen sharing here: install your desktop's portal backend.</translation>
    </message>
    <message>
      <source>请选择要共享的屏幕...</source>
      <translation>Choose the screens to share...</translation>
    </message>
    <message>
      <source>屏幕共享已被拒绝。</source>
      <translation>Screen sharing was declined.</translation>
    </message>
    <message>
      <source>桌面已停止屏幕共享。</source>
      <translation>The desktop stopped screen sharing.</translation>
    </message>
    <message>
      <source>共享屏幕...</source>
      <translation>Share the screen...</translation>
    </message>
  </context>
  <context>
    <name>SettingsDialog</name>
    <message>
      <source>设置</source>
      <translation>Settings</translation>
    </message>
    <message>
      <source>通用设置</source>
      <translation>General</translation>
    </message>
    <message>
      <source>语言</source>
      <translation>Language</translation>
    </message>
    <message>
      <source>场景捕获模式</source>
      <translation>Screen capture mode</translation>
    </message>
    <message>
      <source>开机时自动启动</source>
      <translation>Start when I log in</translation>
    </message>
    <message>
      <source>打开用户配置目录</source>
      <translation>Open the configuration folder</translation>
    </message>
    <message>
      <source>恢复默认设置</source>
      <translation>Restore the defaults</translation>
    </message>
    <message>
      <source>音乐模式1 的高级选项</source>
      <translation>Advanced options of music mode 1</translation>
    </message>
    <message>
      <source>选中开启音乐模式1 右侧的高级选项，这些选项用于音乐模式1 的参数调试。</source>
      <translation>Shows the advanced options to the right of music mode 1, for tuning its parameters.</translation>
    </message>
    <message>
      <source>屏幕快照</source>
      <translation>Screen snapshots</translation>
    </message>
    <message>
      <source>间断性保存屏幕捕获器中抓取的快照。</source>
      <translation>Saves a snapshot of the screen capture now and then.</translation>
    </message>
    <message>
      <source>端口数据摘要日志</source>
      <translation>Port data digest in the log</translation>
    </message>
    <message>
      <source>保存端口数据的部分内容到日志。</source>
      <translation>Writes part of the data sent to the port into the log.</translation>
    </message>
    <message>
      <source>启用</source>
      <translation>Enable</translation>
    </message>
    <message>
      <source>通用设置;快捷键设置</source>
      <translation>General;Hotkeys</translation>
    </message>
    <message>
      <source>已存在同名的自启动文件：%1。请移除或重命名后再试。</source>
      <translation>An autostart file of this name already exists: %1. Remove or rename it, then try again.</translation>
    </message>
    <message>
      <source>模式 %1</source>
      <translation>Mode %1</translation>
    </message>
    <message>
      <source>清理配置文件需要重启应用程序, 这个操作将退出Orvanta.</source>
      <translation>Restoring the defaults clears the configuration at the next start. Orvanta will quit now.</translation>
    </message>
  </context>
</TS>
