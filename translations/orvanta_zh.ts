<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="zh_CN">
  <context>
    <name>ControlPage</name>
    <message>
      <source>  工作状态</source>
      <translation>  工作状态</translation>
    </message>
    <message>
      <source>开灯</source>
      <translation>开灯</translation>
    </message>
    <message>
      <source>关灯</source>
      <translation>关灯</translation>
    </message>
    <message>
      <source>  安装方式</source>
      <translation>  安装方式</translation>
    </message>
    <message>
      <source>从左至右</source>
      <translation>从左至右</translation>
    </message>
    <message>
      <source>从右至左</source>
      <translation>从右至左</translation>
    </message>
    <message>
      <source>  亮度</source>
      <translation>  亮度</translation>
    </message>
    <message>
      <source>  工作模式</source>
      <translation>  工作模式</translation>
    </message>
    <message>
      <source>  子模式</source>
      <translation>  子模式</translation>
    </message>
    <message>
      <source>  其他选项</source>
      <translation>  其他选项</translation>
    </message>
  </context>
  <context>
    <name>ControllerConfigDialog</name>
    <message>
      <source>灯带配置</source>
      <translation>灯带配置</translation>
    </message>
    <message>
      <source>总计 0 个LED灯珠</source>
      <translation>总计 0 个LED灯珠</translation>
    </message>
    <message>
      <source>添加</source>
      <translation>添加</translation>
    </message>
    <message>
      <source>删除</source>
      <translation>删除</translation>
    </message>
    <message>
      <source>确定</source>
      <translation>确定</translation>
    </message>
    <message>
      <source>取消</source>
      <translation>取消</translation>
    </message>
    <message>
      <source>line %1</source>
      <translation>line %1</translation>
    </message>
    <message>
      <source>总计 %1 个LED灯珠</source>
      <translation>总计 %1 个LED灯珠</translation>
    </message>
  </context>
  <context>
    <name>CrashReporterWindow</name>
    <message>
      <source>信号</source>
      <translation>信号</translation>
    </message>
    <message>
      <source>地址</source>
      <translation>地址</translation>
    </message>
    <message>
      <source>版本</source>
      <translation>版本</translation>
    </message>
    <message>
      <source>时间</source>
      <translation>时间</translation>
    </message>
    <message>
      <source>大小</source>
      <translation>大小</translation>
    </message>
    <message>
      <source>文件</source>
      <translation>文件</translation>
    </message>
    <message>
      <source>Orvanta 意外停止了。</source>
      <translation>Orvanta 意外停止了。</translation>
    </message>
    <message>
      <source>已保存一份错误报告</source>
      <translation>已保存一份错误报告</translation>
    </message>
    <message>
      <source>，以及 1 份更早的报告</source>
      <translation>，以及 1 份更早的报告</translation>
    </message>
    <message>
      <source>，以及 %1 份更早的报告</source>
      <translation>，以及 %1 份更早的报告</translation>
    </message>
    <message>
      <source>。发送它有助于修复这个问题。</source>
      <translation>。发送它有助于修复这个问题。</translation>
    </message>
    <message>
      <source>报告包含版本、崩溃发生的位置、崩溃线程的栈、已加载的库和最后的日志行。它不包含您的任何文件，但其中的路径可能含有您的用户名，并且包含程序内存的片段。</source>
      <translation>报告包含版本、崩溃发生的位置、崩溃线程的栈、已加载的库和最后的日志行。它不包含您的任何文件，但其中的路径可能含有您的用户名，并且包含程序内存的片段。</translation>
    </message>
    <message>
      <source>详细信息</source>
      <translation>详细信息</translation>
    </message>
    <message>
      <source>打开文件夹</source>
      <translation>打开文件夹</translation>
    </message>
    <message>
      <source>重新启动 Orvanta</source>
      <translation>重新启动 Orvanta</translation>
    </message>
    <message>
      <source>发送报告</source>
      <translation>发送报告</translation>
    </message>
    <message>
      <source>不发送</source>
      <translation>不发送</translation>
    </message>
    <message>
      <source>关闭</source>
      <translation>关闭</translation>
    </message>
    <message>
      <source>正在发送……</source>
      <translation>正在发送……</translation>
    </message>
    <message>
      <source>在线服务已关闭：没有发送任何内容。报告会在在线服务开启后的下次启动时发送。</source>
      <translation>在线服务已关闭：没有发送任何内容。报告会在在线服务开启后的下次启动时发送。</translation>
    </message>
    <message>
      <source>现在无法发送报告，它会在下次启动时发送。</source>
      <translation>现在无法发送报告，它会在下次启动时发送。</translation>
    </message>
    <message>
      <source>这份报告无法读取，已被搁置，没有发送。</source>
      <translation>这份报告无法读取，已被搁置，没有发送。</translation>
    </message>
    <message>
      <source>报告已发送，谢谢。</source>
      <translation>报告已发送，谢谢。</translation>
    </message>
  </context>
  <context>
    <name>EffectNames</name>
    <message>
      <source>单色模式</source>
      <translation>单色模式</translation>
    </message>
    <message>
      <source>流光异彩</source>
      <translation>流光异彩</translation>
    </message>
    <message>
      <source>影随心动</source>
      <translation>影随心动</translation>
    </message>
    <message>
      <source>幻彩模式 3</source>
      <translation>幻彩模式 3</translation>
    </message>
    <message>
      <source>幻彩模式 4</source>
      <translation>幻彩模式 4</translation>
    </message>
    <message>
      <source>幻彩模式 5</source>
      <translation>幻彩模式 5</translation>
    </message>
    <message>
      <source>幻彩模式 6</source>
      <translation>幻彩模式 6</translation>
    </message>
    <message>
      <source>幻彩模式 7</source>
      <translation>幻彩模式 7</translation>
    </message>
    <message>
      <source>幻彩模式 8</source>
      <translation>幻彩模式 8</translation>
    </message>
    <message>
      <source>全屏模式</source>
      <translation>全屏模式</translation>
    </message>
    <message>
      <source>半屏-上</source>
      <translation>半屏-上</translation>
    </message>
    <message>
      <source>半屏-下</source>
      <translation>半屏-下</translation>
    </message>
    <message>
      <source>半屏-左</source>
      <translation>半屏-左</translation>
    </message>
    <message>
      <source>半屏-右</source>
      <translation>半屏-右</translation>
    </message>
    <message>
      <source>电影模式</source>
      <translation>电影模式</translation>
    </message>
    <message>
      <source>音乐模式1</source>
      <translation>音乐模式1</translation>
    </message>
    <message>
      <source>音乐模式2</source>
      <translation>音乐模式2</translation>
    </message>
    <message>
      <source>音乐模式3</source>
      <translation>音乐模式3</translation>
    </message>
    <message>
      <source>音乐模式4</source>
      <translation>音乐模式4</translation>
    </message>
  </context>
  <context>
    <name>FrmFlowingEffect</name>
    <message>
      <source>速度：</source>
      <translation>速度：</translation>
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
      <translation>选择颜色</translation>
    </message>
  </context>
  <context>
    <name>GradientHandler</name>
    <message>
      <source>修改</source>
      <translation>修改</translation>
    </message>
    <message>
      <source>删除</source>
      <translation>删除</translation>
    </message>
  </context>
  <context>
    <name>GradientWidget</name>
    <message>
      <source>选择颜色</source>
      <translation>选择颜色</translation>
    </message>
  </context>
  <context>
    <name>GroupInformation</name>
    <message>
      <source>单色模式</source>
      <translation>单色模式</translation>
    </message>
    <message>
      <source>炫彩模式</source>
      <translation>炫彩模式</translation>
    </message>
    <message>
      <source>屏幕同步</source>
      <translation>屏幕同步</translation>
    </message>
    <message>
      <source>音乐律动</source>
      <translation>音乐律动</translation>
    </message>
  </context>
  <context>
    <name>HelpDialog</name>
    <message>
      <source>帮助</source>
      <translation>帮助</translation>
    </message>
    <message>
      <source>当前版本号：</source>
      <translation>当前版本号：</translation>
    </message>
    <message>
      <source>最新版本号：</source>
      <translation>最新版本号：</translation>
    </message>
    <message>
      <source>点击更新</source>
      <translation>点击更新</translation>
    </message>
    <message>
      <source>请写下您的建议或遇到的问题</source>
      <translation>请写下您的建议或遇到的问题</translation>
    </message>
    <message>
      <source>您的联系方式</source>
      <translation>您的联系方式</translation>
    </message>
    <message>
      <source>附带日志，以便我们了解程序的故障原因。</source>
      <translation>附带日志，以便我们了解程序的故障原因。</translation>
    </message>
    <message>
      <source>发送反馈</source>
      <translation>发送反馈</translation>
    </message>
    <message>
      <source>版本信息;问题反馈;联系我们</source>
      <translation>版本信息;问题反馈;联系我们</translation>
    </message>
    <message>
      <source>已是最新版本</source>
      <translation>已是最新版本</translation>
    </message>
  </context>
  <context>
    <name>HomePage</name>
    <message>
      <source>灯光设备</source>
      <translation>灯光设备</translation>
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
      <translation>此组合键已被其他程序占用</translation>
    </message>
    <message>
      <source>此会话中全局快捷键不可用（需要 X11 会话）。</source>
      <translation>此会话中全局快捷键不可用（需要 X11 会话）。</translation>
    </message>
    <message>
      <source>全局快捷键仅在 X11 窗口获得焦点时生效。</source>
      <translation>全局快捷键仅在 X11 窗口获得焦点时生效。</translation>
    </message>
  </context>
  <context>
    <name>HotkeyDescription</name>
    <message>
      <source>全开全关切换</source>
      <translation>全开全关切换</translation>
    </message>
    <message>
      <source>切换到下一个模式</source>
      <translation>切换到下一个模式</translation>
    </message>
    <message>
      <source>切换到上一个模式</source>
      <translation>切换到上一个模式</translation>
    </message>
    <message>
      <source>降低亮度</source>
      <translation>降低亮度</translation>
    </message>
    <message>
      <source>提升亮度</source>
      <translation>提升亮度</translation>
    </message>
  </context>
  <context>
    <name>MMSOptWidget</name>
    <message>
      <source>强度：</source>
      <translation>强度：</translation>
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
      <translation>首页</translation>
    </message>
    <message>
      <source>Alt+H</source>
      <translation>Alt+H</translation>
    </message>
    <message>
      <source>设置</source>
      <translation>设置</translation>
    </message>
    <message>
      <source>Alt+S</source>
      <translation>Alt+S</translation>
    </message>
    <message>
      <source>帮助</source>
      <translation>帮助</translation>
    </message>
    <message>
      <source>Alt+E</source>
      <translation>Alt+E</translation>
    </message>
    <message>
      <source>全关</source>
      <translation>全关</translation>
    </message>
    <message>
      <source>Alt+N</source>
      <translation>Alt+N</translation>
    </message>
    <message>
      <source>全开</source>
      <translation>全开</translation>
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
      <translation>退出</translation>
    </message>
    <message>
      <source>检测到新版本，是否下载最新安装包？</source>
      <translation>检测到新版本，是否下载最新安装包？</translation>
    </message>
    <message>
      <source>是</source>
      <translation>是</translation>
    </message>
    <message>
      <source>否</source>
      <translation>否</translation>
    </message>
  </context>
  <context>
    <name>MediaSourceOptWidget</name>
    <message>
      <source>设备源：</source>
      <translation>设备源：</translation>
    </message>
  </context>
  <context>
    <name>PortNoticeBar</name>
    <message>
      <source>无法打开 %1：您已在“%2”组中，但本次登录尚未生效。请注销后重新登录。</source>
      <translation>无法打开 %1：您已在“%2”组中，但本次登录尚未生效。请注销后重新登录。</translation>
    </message>
    <message>
      <source>无法打开 %1：没有读写权限。规则已安装，请重新插入设备；或者运行“%2”，然后注销并重新登录。</source>
      <translation>无法打开 %1：没有读写权限。规则已安装，请重新插入设备；或者运行“%2”，然后注销并重新登录。</translation>
    </message>
    <message>
      <source>无法打开 %1：另一个程序正在使用该端口。请关闭该程序，然后重新插入设备。</source>
      <translation>无法打开 %1：另一个程序正在使用该端口。请关闭该程序，然后重新插入设备。</translation>
    </message>
    <message>
      <source>复制命令</source>
      <translation>复制命令</translation>
    </message>
    <message>
      <source>关闭</source>
      <translation>关闭</translation>
    </message>
  </context>
  <context>
    <name>SFrmColorMap</name>
    <message>
      <source>速度：</source>
      <translation>速度：</translation>
    </message>
  </context>
  <context>
    <name>SFrmMoodShadow</name>
    <message>
      <source>添加</source>
      <translation>添加</translation>
    </message>
    <message>
      <source>删除</source>
      <translation>删除</translation>
    </message>
    <message>
      <source>速度</source>
      <translation>速度</translation>
    </message>
    <message>
      <source>范围</source>
      <translation>范围</translation>
    </message>
  </context>
  <context>
    <name>SSLOptWidget</name>
    <message>
      <source>重置</source>
      <translation>重置</translation>
    </message>
  </context>
  <context>
    <name>ScreenSyncSOptWidget</name>
    <message>
      <source>视频源</source>
      <translation>视频源</translation>
    </message>
    <message>
      <source>饱和度</source>
      <translation>饱和度</translation>
    </message>
    <message>
      <source>模糊</source>
      <translation>模糊</translation>
    </message>
    <message>
      <source>屏幕同步需要 X11 会话或屏幕共享（xdg-desktop-portal）。</source>
      <translation>屏幕同步需要 X11 会话或屏幕共享（xdg-desktop-portal）。</translation>
    </message>
    <message>
      <source>此处无法共享屏幕：请安装桌面的门户后端。</source>
      <translation>此处无法共享屏幕：请安装桌面的门户后端。</translation>
    </message>
    <message>
      <source>请选择要共享的屏幕...</source>
      <translation>请选择要共享的屏幕...</translation>
    </message>
    <message>
      <source>屏幕共享已被拒绝。</source>
      <translation>屏幕共享已被拒绝。</translation>
    </message>
    <message>
      <source>桌面已停止屏幕共享。</source>
      <translation>桌面已停止屏幕共享。</translation>
    </message>
    <message>
      <source>共享屏幕...</source>
      <translation>共享屏幕...</translation>
    </message>
  </context>
  <context>
    <name>SettingsDialog</name>
    <message>
      <source>设置</source>
      <translation>设置</translation>
    </message>
    <message>
      <source>通用设置</source>
      <translation>通用设置</translation>
    </message>
    <message>
      <source>语言</source>
      <translation>语言</translation>
    </message>
    <message>
      <source>场景捕获模式</source>
      <translation>场景捕获模式</translation>
    </message>
    <message>
      <source>开机时自动启动</source>
      <translation>开机时自动启动</translation>
    </message>
    <message>
      <source>打开用户配置目录</source>
      <translation>打开用户配置目录</translation>
    </message>
    <message>
      <source>恢复默认设置</source>
      <translation>恢复默认设置</translation>
    </message>
    <message>
      <source>音乐模式1 的高级选项</source>
      <translation>音乐模式1 的高级选项</translation>
    </message>
    <message>
      <source>选中开启音乐模式1 右侧的高级选项，这些选项用于音乐模式1 的参数调试。</source>
      <translation>选中开启音乐模式1 右侧的高级选项，这些选项用于音乐模式1 的参数调试。</translation>
    </message>
    <message>
      <source>屏幕快照</source>
      <translation>屏幕快照</translation>
    </message>
    <message>
      <source>间断性保存屏幕捕获器中抓取的快照。</source>
      <translation>间断性保存屏幕捕获器中抓取的快照。</translation>
    </message>
    <message>
      <source>端口数据摘要日志</source>
      <translation>端口数据摘要日志</translation>
    </message>
    <message>
      <source>保存端口数据的部分内容到日志。</source>
      <translation>保存端口数据的部分内容到日志。</translation>
    </message>
    <message>
      <source>启用</source>
      <translation>启用</translation>
    </message>
    <message>
      <source>通用设置;快捷键设置</source>
      <translation>通用设置;快捷键设置</translation>
    </message>
    <message>
      <source>已存在同名的自启动文件：%1。请移除或重命名后再试。</source>
      <translation>已存在同名的自启动文件：%1。请移除或重命名后再试。</translation>
    </message>
    <message>
      <source>模式 %1</source>
      <translation>模式 %1</translation>
    </message>
    <message>
      <source>清理配置文件需要重启应用程序, 这个操作将退出Orvanta.</source>
      <translation>清理配置文件需要重启应用程序, 这个操作将退出Orvanta.</translation>
    </message>
  </context>
</TS>
